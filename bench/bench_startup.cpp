// Start-up and memory of the whole program, each figure next to an empty Qt Widgets program
// measured the same way in the same run: time from process start to the first painted main window
// (empty profile, and the generated 50 MB history), resident memory once that window is painted,
// and resident memory over 200 turns in one window against the mock provider.
//
// Each start is a fresh child process (this executable with --child), timed from just before the
// parent starts it to the moment the child has painted its window, on the system-wide monotonic
// clock. Under Xvfb when it is installed (a real X server: mapping, expose, flush), else offscreen.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "model/jsoncoding.h"
#include "secretservice.h"
#include "storage/conversationstore.h"
#include "storage/keyring.h"
#include "storage/providerstore.h"
#include "ui/contentview.h"
#include "ui/mainwindow.h"
#include "ui/verboltapp.h"

#include <QApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QIcon>
#include <QMainWindow>
#include <QPointer>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <ctime>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

qint64 monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// Prints "painted <ns> <MiB>" once window has been painted and flushed, then ends the process.
class FirstPaint final : public QObject
{
public:
    explicit FirstPaint(QWidget *window)
        : m_window(window)
    {
        qApp->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (!m_seen && event->type() == QEvent::Paint && watched->isWidgetType() &&
            static_cast<QWidget *>(watched)->window() == m_window) {
            m_seen = true;
            // The rest of this paint pass and its flush to the screen run before this.
            QTimer::singleShot(0, this, [] {
                std::printf("painted %lld %.3f\n", static_cast<long long>(monotonicNs()), Bench::residentMiB());
                std::fflush(stdout);
                QCoreApplication::exit(0);
            });
        }
        return false;
    }

private:
    QPointer<QWidget> m_window;
    bool m_seen = false;
};

int childEmptyQt(int argc, char **argv)
{
    QApplication app(argc, argv);
    QMainWindow window;
    window.setWindowTitle(u"Empty"_s);
    window.setMinimumSize(760, 480);
    window.resize(1000, 700);
    FirstPaint probe(&window);
    window.show();
    return app.exec();
}

// What the program's main() does, minus asking for a running copy of itself.
int childVerbolt(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(u"Verbolt"_s);
    QApplication::setApplicationName(u"Verbolt"_s);
    QGuiApplication::setDesktopFileName(u"org.verbolt.Verbolt"_s);
    QApplication::setWindowIcon(QIcon(QStringLiteral(VERBOLT_APP_ICON)));
    QApplication::setQuitOnLastWindowClosed(false);
    VerboltApp verbolt;
    MainWindow *window = verbolt.newWindow();
    verbolt.store()->useKeyring(new Keyring);
    FirstPaint probe(window);
    return app.exec();
}

bool waitUntil(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    return done();
}

// 200 turns in one window; prints "turn <n> <MiB>" every 10 turns. The provider is another
// process: an in-process one would keep every request it answered and grow with them.
int childTurns(int argc, char **argv, const QString &baseURL)
{
    QApplication app(argc, argv);
    VerboltApp verbolt;
    Provider provider = Provider::presets().last();
    provider.id = QUuid::createUuid();
    provider.baseURL = baseURL;
    provider.apiKey = u"sk-bench"_s;
    provider.model = u"mock-small"_s;
    verbolt.store()->add(provider);
    MainWindow *window = verbolt.newWindow();
    verbolt.newChat();
    ChatViewModel *chat = static_cast<ContentView *>(window->content())->chat();
    waitUntil([] { return false; }, 200);
    for (int turn = 1; turn <= 200; ++turn) {
        chat->setInput(u"Question number %1: show me some code and a table."_s.arg(turn));
        chat->send(verbolt.store()->selected());
        if (!waitUntil([chat] { return !chat->isStreaming(); }, 30000))
            return 1;
        if (turn % 10 == 0) {
            waitUntil([] { return false; }, 30); // let deferred deletions and repaints run
            std::printf("turn %d %.3f\n", turn, Bench::residentMiB());
            std::fflush(stdout);
        }
    }
    return 0;
}

struct Child
{
    qint64 startedNs = 0;
    QByteArray output;
    bool ok = false;
};

Child runChild(const QString &mode, const QProcessEnvironment &env, const QStringList &extra = {})
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    Child child;
    child.startedNs = monotonicNs();
    process.start(QCoreApplication::applicationFilePath(), QStringList{u"--child"_s, mode} + extra);
    child.ok =
        process.waitForFinished(600000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    child.output = process.readAllStandardOutput();
    return child;
}

struct Start
{
    std::vector<double> ms;
    std::vector<double> mib;
};

Start measureStarts(const QString &mode, const QProcessEnvironment &env, int runs)
{
    Start start;
    runChild(mode, env); // warm the page cache and the font cache
    for (int i = 0; i < runs; ++i) {
        const Child child = runChild(mode, env);
        const QList<QByteArray> fields = child.output.trimmed().split(' ');
        if (!child.ok || fields.size() != 3 || fields.at(0) != "painted") {
            std::fprintf(stderr, "bench_startup: %s child failed: %s\n", qPrintable(mode), child.output.constData());
            continue;
        }
        start.ms.push_back(double(fields.at(1).toLongLong() - child.startedNs) / 1e6);
        start.mib.push_back(fields.at(2).toDouble());
    }
    return start;
}

// A private X server for the children, or nothing when Xvfb is not installed.
class Xvfb
{
public:
    bool start()
    {
        const QString program = QStandardPaths::findExecutable(u"Xvfb"_s);
        if (program.isEmpty())
            return false;
        m_process.start(program,
                        {u"-displayfd"_s, u"1"_s, u"-screen"_s, u"0"_s, u"1600x1000x24"_s, u"-nolisten"_s, u"tcp"_s});
        if (!m_process.waitForStarted(5000))
            return false;
        QElapsedTimer timer;
        timer.start();
        while (!m_process.canReadLine() && timer.elapsed() < 10000)
            m_process.waitForReadyRead(100);
        m_display = QString::fromLatin1(m_process.readLine().trimmed());
        return !m_display.isEmpty();
    }
    ~Xvfb()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.terminate();
            m_process.waitForFinished(5000);
        }
    }
    QString display() const { return u":"_s + m_display; }

private:
    QProcess m_process;
    QString m_display;
};

QProcessEnvironment profileEnvironment(QProcessEnvironment env, const QString &root)
{
    QDir().mkpath(root + u"/config"_s);
    QDir().mkpath(root + u"/data"_s);
    env.insert(u"XDG_CONFIG_HOME"_s, root + u"/config"_s);
    env.insert(u"XDG_DATA_HOME"_s, root + u"/data"_s);
    return env;
}

int parent()
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    Xvfb xvfb;
    if (xvfb.start()) {
        env.insert(u"QT_QPA_PLATFORM"_s, u"xcb"_s);
        env.insert(u"DISPLAY"_s, xvfb.display());
        std::printf("platform: xcb on Xvfb %s\n", qPrintable(xvfb.display()));
    } else {
        env.insert(u"QT_QPA_PLATFORM"_s, u"offscreen"_s);
        std::printf("platform: offscreen (Xvfb not found)\n");
    }
    env.remove(u"QT_ACCESSIBILITY"_s);
    if (!env.contains(u"XDG_RUNTIME_DIR"_s)) {
        const QString runtime = dir.filePath(u"runtime"_s);
        QDir().mkpath(runtime);
        QFile::setPermissions(runtime, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        env.insert(u"XDG_RUNTIME_DIR"_s, runtime);
    }

    const QProcessEnvironment empty = profileEnvironment(env, dir.filePath(u"empty"_s));
    const QProcessEnvironment heavy = profileEnvironment(env, dir.filePath(u"history"_s));
    const QString history = dir.filePath(u"history/data/Verbolt/conversations.json"_s);
    QDir().mkpath(QFileInfo(history).absolutePath());
    if (!Bench::generateHistory(history)) {
        std::fprintf(stderr, "bench_startup: could not generate the history with %s\n",
                     qPrintable(Bench::historyGenerator()));
        return 1;
    }
    const double historyMB = double(QFileInfo(history).size()) / (1024.0 * 1024.0);

    // The same history with a provider whose key is in a desktop keyring of our own; the first
    // (warm-up) start moves the key there from the preferences file.
    StorageTest::SecretService secrets;
    const QString noKeyring = secrets.start();
    const QString deadBus = u"unix:path="_s + dir.filePath(u"no-bus"_s);
    QProcessEnvironment keyed = profileEnvironment(env, dir.filePath(u"keyed"_s));
    const QString keyedHistory = dir.filePath(u"keyed/data/Verbolt/conversations.json"_s);
    QDir().mkpath(QFileInfo(keyedHistory).absolutePath());
    QFile::copy(history, keyedHistory);
    {
        QSettings preferences(dir.filePath(u"keyed/config/Verbolt/Verbolt.conf"_s), QSettings::IniFormat);
        Provider provider = Provider::presets().first();
        provider.apiKey = u"sk-bench"_s;
        preferences.setValue(ProviderStore::providersKey, encodeJson(QList<Provider>{provider}));
    }
    if (noKeyring.isEmpty())
        keyed.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"));
    else
        std::fprintf(stderr, "bench_startup: no keyring for the keyring run: %s\n", qPrintable(noKeyring));
    // Every other start finds no keyring at all, as on a bare system.
    QProcessEnvironment heavyBare = heavy;
    heavyBare.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, deadBus);

    constexpr int runs = 9;
    const Start bare = measureStarts(u"empty-qt"_s, empty, runs);
    QProcessEnvironment emptyBare = empty;
    emptyBare.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, deadBus);
    const Start fresh = measureStarts(u"verbolt"_s, emptyBare, runs);
    const Start loaded = measureStarts(u"verbolt"_s, heavyBare, 5);
    const Start withKeyring = measureStarts(u"verbolt"_s, keyed, 5);
    const double bareMs = Bench::median(bare.ms), bareMiB = Bench::median(bare.mib);

    Bench::report("history file", historyMB, "MiB");
    Bench::report("empty Qt Widgets program: first paint", bareMs, "ms");
    Bench::report("verbolt, empty profile: first paint", Bench::median(fresh.ms), "ms");
    Bench::report("  / empty Qt program (aim <= 1.3)", Bench::median(fresh.ms) / bareMs, "x");
    Bench::report("verbolt, 50 MB history: first paint", Bench::median(loaded.ms), "ms");
    Bench::report("  - empty Qt program (aim <= 100)", Bench::median(loaded.ms) - bareMs, "ms");
    Bench::report("verbolt, 50 MB history, keyring: first paint", Bench::median(withKeyring.ms), "ms");
    Bench::report("  / without a keyring (aim <= 1.05)", Bench::median(withKeyring.ms) / Bench::median(loaded.ms), "x");
    Bench::report("empty Qt Widgets program: resident", bareMiB, "MiB");
    Bench::report("verbolt, empty profile: resident", Bench::median(fresh.mib), "MiB");
    Bench::report("verbolt, 50 MB history: resident", Bench::median(loaded.mib), "MiB");
    Bench::report("  aim: empty Qt program + 1.5 x file", bareMiB + 1.5 * historyMB, "MiB");

    QProcess mock;
    mock.start(QCoreApplication::applicationDirPath() + u"/../tools/verbolt-mock-provider/verbolt-mock-provider"_s,
               QStringList());
    if (!mock.waitForStarted(5000) || !mock.waitForReadyRead(5000)) {
        std::fprintf(stderr, "bench_startup: build the verbolt-mock-provider target first\n");
        return 1;
    }
    const QString baseURL = u"http://127.0.0.1:%1/v1"_s.arg(QString::fromLatin1(mock.readLine().trimmed()));
    const Child turns = runChild(u"turns"_s, profileEnvironment(env, dir.filePath(u"turns"_s)), {baseURL});
    mock.kill();
    mock.waitForFinished(5000);
    double at20 = 0, last = 0;
    for (const QByteArray &line : turns.output.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() != 3 || fields.at(0) != "turn")
            continue;
        const int turn = fields.at(1).toInt();
        last = fields.at(2).toDouble();
        if (turn == 20)
            at20 = last;
        if (turn % 40 == 0 || turn == 20)
            Bench::report(qPrintable(u"resident after turn %1"_s.arg(turn)), last, "MiB");
    }
    if (!turns.ok) {
        std::fprintf(stderr, "bench_startup: the turns child failed\n");
        return 1;
    }
    Bench::report("growth from turn 20 to 200 (aim < 5 MB)", (last - at20) * 1.048576, "MB");
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 3 && qstrcmp(argv[1], "--child") == 0) {
        const QByteArray mode = argv[2];
        if (mode == "empty-qt")
            return childEmptyQt(argc, argv);
        if (mode == "verbolt")
            return childVerbolt(argc, argv);
        if (mode == "turns" && argc == 4)
            return childTurns(argc, argv, QString::fromLocal8Bit(argv[3]));
        return 2;
    }
    QCoreApplication app(argc, argv);
    return parent();
}
