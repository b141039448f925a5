#include "ui/quitsignals.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int handledSignals[] = {SIGTERM, SIGHUP, SIGINT};
// [0] is read by the event loop, [1] written by the handler.
int wakePair[2] = {-1, -1};

extern "C" void wakeEventLoop(int signalNumber)
{
    // Only async-signal-safe calls here; errno belongs to whatever the signal interrupted.
    const int savedErrno = errno;
    const char byte = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(wakePair[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

QuitSignals::QuitSignals(QObject *parent)
    : QObject(parent)
{
    if (wakePair[0] >= 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, wakePair) != 0)
        return;
    m_notifier = new QSocketNotifier(wakePair[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &QuitSignals::handleReadable);

    struct sigaction action = {};
    action.sa_handler = wakeEventLoop;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    for (const int signalNumber : handledSignals)
        ::sigaction(signalNumber, &action, nullptr);
}

QuitSignals::~QuitSignals()
{
    if (!m_notifier)
        return;
    for (const int signalNumber : handledSignals)
        ::signal(signalNumber, SIG_DFL);
    delete m_notifier;
    ::close(wakePair[0]);
    ::close(wakePair[1]);
    wakePair[0] = wakePair[1] = -1;
}

void QuitSignals::handleReadable()
{
    char bytes[16];
    ssize_t count = 0;
    while ((count = ::read(wakePair[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < count; ++i)
            emit quitRequested(int(bytes[i]));
    }
}
