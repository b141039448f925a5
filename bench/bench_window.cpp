// What a streamed reply costs the real program: the `verbolt` executable in a private X server
// (Xvfb), with the accessibility bus on as under a screen reader or off, a turn typed into its
// composer with xdotool, the mock provider pacing the 20,000-token reply, and the CPU seconds of
// the whole verbolt process (every thread, user and system) read from /proc from the key press
// until the reply is stored in the conversation file. Each run is a fresh process.
//
//   bench_window [--rate TOKENS_PER_S] [--runs N] [--a11y on|off|both] [--reply FILE]
//
// Defaults: 400 tokens per second (about a minute a run), three runs, both accessibility modes.
// Needs Xvfb, xdotool, dbus-daemon, gnome-keyring and at-spi2-core; without them it says so and
// measures nothing.
#include "harness.h"
#include "providerthread.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

const QString atSpiLauncher = u"/usr/libexec/at-spi-bus-launcher"_s;

// CPU seconds (user + system, all threads) of a process, or -1 once it is gone.
double processCpuSeconds(qint64 pid)
{
    QFile file(u"/proc/%1/stat"_s.arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray stat = file.readAll();
    // The command name may hold spaces and parentheses; the fields follow the last ")".
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1;
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

// A helper process that is stopped, and waited for, when it goes out of scope.
struct Child
{
    std::unique_ptr<QProcess> process = std::make_unique<QProcess>();
    ~Child()
    {
        if (process->state() != QProcess::NotRunning) {
            process->terminate();
            if (!process->waitForFinished(5000)) {
                process->kill();
                process->waitForFinished(2000);
            }
        }
    }
};

// Reads the first line a child prints on standard output.
QByteArray firstLine(QProcess &process, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!process.canReadLine() && timer.elapsed() < timeoutMs && process.state() != QProcess::NotRunning)
        process.waitForReadyRead(100);
    return process.readLine().trimmed();
}

bool replyStored(const QString &historyPath, const QString &reply)
{
    QFile file(historyPath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    for (const QJsonValue &conversation : document.array()) {
        for (const QJsonValue &message : conversation[u"messages"_s].toArray()) {
            if (message[u"role"_s].toString() == u"assistant"_s && message[u"content"_s].toString() == reply)
                return true;
        }
    }
    return false;
}

struct Run
{
    bool stored = false;
    double cpuSeconds = 0;
    double wallSeconds = 0;
    double residentMiB = 0;
};

// One reply streamed into a fresh window. Returns nullopt when the setup failed (said on stderr).
std::optional<Run> streamOnce(const QString &baseURL, const QString &reply, bool accessibility)
{
    QTemporaryDir scratch;
    const QString root = scratch.path();
    QDir().mkpath(root + u"/run"_s);
    QFile::setPermissions(root + u"/run"_s, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"XDG_CONFIG_HOME"_s, root + u"/config"_s);
    env.insert(u"XDG_DATA_HOME"_s, root + u"/data"_s);
    env.insert(u"XDG_RUNTIME_DIR"_s, root + u"/run"_s);
    env.insert(u"HOME"_s, root);
    env.insert(u"TZ"_s, u"UTC"_s);

    Child xserver;
    xserver.process->setProgram(u"Xvfb"_s);
    xserver.process->setArguments({u"-displayfd"_s, u"1"_s, u"-screen"_s, u"0"_s, u"1600x1000x24"_s, u"-dpi"_s, u"96"_s,
                                   u"-nolisten"_s, u"tcp"_s});
    xserver.process->setProcessChannelMode(QProcess::SeparateChannels);
    xserver.process->setStandardErrorFile(QProcess::nullDevice());
    xserver.process->start();
    const QByteArray display = firstLine(*xserver.process, 10000);
    if (display.isEmpty()) {
        std::fprintf(stderr, "bench_window: Xvfb did not start\n");
        return std::nullopt;
    }
    env.insert(u"DISPLAY"_s, u":"_s + QString::fromLatin1(display));

    // A session of its own in both modes: API keys live in the desktop keyring, which would
    // otherwise ask for a password on the private display and never answer.
    Child bus;
    Child atSpi;
    bus.process->setProgram(u"dbus-daemon"_s);
    bus.process->setArguments({u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
    bus.process->setProcessEnvironment(env);
    bus.process->setStandardErrorFile(QProcess::nullDevice());
    bus.process->start();
    const QByteArray address = firstLine(*bus.process, 10000);
    if (address.isEmpty()) {
        std::fprintf(stderr, "bench_window: no session bus\n");
        return std::nullopt;
    }
    env.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, QString::fromLatin1(address));
    {
        // A scratch keyring, unlocked; it ends with the session bus.
        QProcess keyring;
        keyring.setProcessEnvironment(env);
        keyring.start(u"gnome-keyring-daemon"_s, {u"--unlock"_s, u"--components=secrets"_s});
        keyring.write("scratch");
        keyring.closeWriteChannel();
        if (!keyring.waitForFinished(10000) || keyring.exitCode() != 0) {
            std::fprintf(stderr, "bench_window: no keyring\n");
            return std::nullopt;
        }
    }
    if (accessibility) {
        atSpi.process->setProgram(atSpiLauncher);
        atSpi.process->setArguments({u"--launch-immediately"_s});
        atSpi.process->setProcessEnvironment(env);
        atSpi.process->setStandardOutputFile(QProcess::nullDevice());
        atSpi.process->setStandardErrorFile(QProcess::nullDevice());
        atSpi.process->start();
        QThread::msleep(500);
        env.insert(u"QT_LINUX_ACCESSIBILITY_ALWAYS_ON"_s, u"1"_s);
    } else {
        env.insert(u"QT_ACCESSIBILITY"_s, u"0"_s);
        env.insert(u"NO_AT_BRIDGE"_s, u"1"_s);
    }

    // The provider goes in the way a user's archive would.
    const QString archive = root + u"/provider.json"_s;
    {
        const QJsonObject provider{{u"id"_s, u"6F9619FF-8B86-D011-B42D-00C04FC964FF"_s},
                                   {u"name"_s, u"Mock"_s},
                                   {u"wire"_s, u"openAI"_s},
                                   {u"baseURL"_s, baseURL},
                                   {u"model"_s, u"mock"_s},
                                   {u"cachedModels"_s, QJsonArray()},
                                   {u"apiKey"_s, u"sk"_s}};
        const QJsonObject document{
            {u"version"_s, 1}, {u"conversations"_s, QJsonArray()}, {u"providers"_s, QJsonArray{provider}}};
        QFile file(archive);
        if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(document).toJson()) < 0)
            return std::nullopt;
    }
    QProcess import;
    import.setProcessEnvironment(env);
    import.start(QStringLiteral(VERBOLT_INSPECT), {u"archive-import"_s, u"--file"_s, archive});
    if (!import.waitForFinished(30000) || import.exitCode() != 0) {
        std::fprintf(stderr, "bench_window: the provider could not be imported\n");
        return std::nullopt;
    }

    Child app;
    app.process->setProcessEnvironment(env);
    app.process->setStandardOutputFile(QProcess::nullDevice());
    app.process->setStandardErrorFile(QProcess::nullDevice());
    app.process->start(QStringLiteral(VERBOLT_APP), {});
    if (!app.process->waitForStarted(10000))
        return std::nullopt;
    const qint64 pid = app.process->processId();
    const auto xdotool = [&env](const QStringList &arguments, int timeoutMs = 60000) {
        QProcess tool;
        tool.setProcessEnvironment(env);
        tool.start(u"xdotool"_s, arguments);
        return tool.waitForFinished(timeoutMs) && tool.exitCode() == 0;
    };
    if (!xdotool({u"search"_s, u"--sync"_s, u"--onlyvisible"_s, u"--pid"_s, QString::number(pid)}, 30000)) {
        std::fprintf(stderr, "bench_window: the window did not appear\n");
        return std::nullopt;
    }
    QThread::msleep(1500);

    const QString history = root + u"/data/Verbolt/conversations.json"_s;
    Run run;
    const double cpuBefore = processCpuSeconds(pid);
    QElapsedTimer wall;
    wall.start();
    xdotool({u"type"_s, u"--delay"_s, u"20"_s, u"Tell me more"_s});
    xdotool({u"key"_s, u"Return"_s});
    while (wall.elapsed() < 1800 * 1000 && app.process->state() == QProcess::Running) {
        if (replyStored(history, reply)) {
            run.stored = true;
            break;
        }
        QThread::msleep(250);
    }
    run.cpuSeconds = processCpuSeconds(pid) - cpuBefore;
    run.wallSeconds = double(wall.elapsed()) / 1000;
    run.residentMiB = Bench::statusKb("VmRSS", long(pid)) / 1024;
    return run;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    double rate = 400;
    int runs = 3;
    QString modes = u"both"_s;
    QString replyPath = Bench::longReplyFile();
    const QStringList args = app.arguments();
    for (qsizetype i = 1; i + 1 < args.size(); i += 2) {
        if (args[i] == u"--rate"_s)
            rate = args[i + 1].toDouble();
        else if (args[i] == u"--runs"_s)
            runs = args[i + 1].toInt();
        else if (args[i] == u"--a11y"_s)
            modes = args[i + 1];
        else if (args[i] == u"--reply"_s)
            replyPath = args[i + 1];
    }
    if (rate <= 0 || runs < 1 || (modes != u"on"_s && modes != u"off"_s && modes != u"both"_s)) {
        std::fprintf(stderr,
                     "usage: bench_window [--rate TOKENS_PER_S] [--runs N] [--a11y on|off|both] [--reply FILE]\n");
        return 2;
    }
    QStringList missing;
    for (const QString &tool : {u"Xvfb"_s, u"xdotool"_s, u"dbus-daemon"_s, u"gnome-keyring-daemon"_s}) {
        if (QStandardPaths::findExecutable(tool).isEmpty())
            missing << tool;
    }
    if (!QFile::exists(atSpiLauncher))
        missing << atSpiLauncher;
    if (!missing.isEmpty()) {
        std::printf(
            "bench_window: skipped, missing %s (apt-get install xvfb xdotool dbus gnome-keyring at-spi2-core)\n",
            qPrintable(missing.join(u", "_s)));
        return 0;
    }

    QFile file(replyPath);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench_window: cannot read %s\n", qPrintable(replyPath));
        return 1;
    }
    MockProviderOptions options;
    options.reply = QString::fromUtf8(file.readAll());
    options.tokensPerSecond = rate;
    Bench::ProviderThread provider(options);
    if (!provider.isListening())
        return 1;
    const QString baseURL = provider.provider().baseURL;

    std::printf("one streamed reply of %lld characters at %g tokens/s in the real window, %d run(s)\n",
                static_cast<long long>(options.reply.size()), rate, runs);
    for (const bool accessibility : {true, false}) {
        if ((accessibility && modes == u"off"_s) || (!accessibility && modes == u"on"_s))
            continue;
        std::vector<double> cpu, wall, resident;
        for (int i = 0; i < runs; ++i) {
            const std::optional<Run> run = streamOnce(baseURL, options.reply, accessibility);
            if (!run)
                return 1;
            if (!run->stored) {
                std::fprintf(stderr, "bench_window: the reply was not stored\n");
                return 1;
            }
            cpu.push_back(run->cpuSeconds);
            wall.push_back(run->wallSeconds);
            resident.push_back(run->residentMiB);
        }
        const char *mode = accessibility ? "accessibility on" : "accessibility off";
        const QByteArray prefix = QByteArray("window reply, ") + mode;
        Bench::report(QByteArray(prefix + ": CPU (median)").constData(), Bench::median(cpu), "s");
        Bench::report(QByteArray(prefix + ": wall (median)").constData(), Bench::median(wall), "s");
        Bench::report(QByteArray(prefix + ": resident after (median)").constData(), Bench::median(resident), "MiB");
    }
    return 0;
}
