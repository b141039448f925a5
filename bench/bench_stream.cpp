// Ingest through ChatService::stream at full speed: the 20,000-token reply from the mock
// provider, in events of about four characters, both dialects. The provider runs as its own
// process when it has been built beside this benchmark, so the CPU figure is the client's alone.
#include "harness.h"
#include "mockprovider.h"
#include "transport/chatstream.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>

namespace {

struct Run
{
    qint64 events = 0;
    double wallMs = 0;
    double cpuSeconds = 0;
    bool ok = false;
};

Run ingest(const Provider &provider)
{
    ChatMessage user;
    user.content = QStringLiteral("Write the long reply.");
    QEventLoop loop;
    Run run;
    const double cpuStart = Bench::processCpuSeconds();
    QElapsedTimer timer;
    timer.start();
    ChatStream *stream = ChatService().stream(provider, {user}, &loop);
    QObject::connect(stream, &ChatStream::eventReceived, &loop, [&run](const ChatEvent &) { ++run.events; });
    QObject::connect(stream, &ChatStream::finished, &loop, [&](const std::optional<ServiceError> &error) {
        run.ok = !error;
        if (error)
            std::fprintf(stderr, "stream failed: %s\n", qPrintable(errorDescription(*error)));
        loop.quit();
    });
    loop.exec();
    run.wallMs = double(timer.nsecsElapsed()) / 1e6;
    run.cpuSeconds = Bench::processCpuSeconds() - cpuStart;
    return run;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QFile replyFile(Bench::longReplyFile());
    if (!replyFile.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(replyFile.fileName()));
        return 1;
    }
    const QString reply = QString::fromUtf8(replyFile.readAll());

    const QString tool = QCoreApplication::applicationDirPath() +
                         QStringLiteral("/../tools/verbolt-mock-provider/verbolt-mock-provider");
    QProcess process;
    MockProvider inProcess;
    QString baseURL;
    if (QFileInfo(tool).isExecutable()) {
        process.start(tool, {QStringLiteral("--reply"), replyFile.fileName(), QStringLiteral("--tokens-per-second"),
                             QStringLiteral("0")});
        if (process.waitForStarted() && process.waitForReadyRead(10000))
            baseURL = QStringLiteral("http://127.0.0.1:%1/v1").arg(QString::fromUtf8(process.readLine().trimmed()));
    }
    if (baseURL.isEmpty()) {
        std::fprintf(stderr, "mock provider process unavailable; serving in-process (CPU includes the server)\n");
        MockProviderOptions options;
        options.reply = reply;
        inProcess.setOptions(options);
        if (!inProcess.listen())
            return 1;
        baseURL = inProcess.baseURL();
    }

    for (const ProviderWire wire : {ProviderWire::openAI, ProviderWire::anthropic}) {
        Provider provider;
        provider.wire = wire;
        provider.baseURL = baseURL;
        provider.model = QStringLiteral("bench");
        provider.apiKey = QStringLiteral("sk-bench");

        std::vector<double> rates, cpuPer10k;
        qint64 events = 0;
        ingest(provider); // warm-up: connection set-up, TLS backend probing, allocator
        for (int i = 0; i < 7; ++i) {
            const Run run = ingest(provider);
            if (!run.ok)
                return 1;
            events = run.events;
            rates.push_back(double(run.events) / (run.wallMs / 1000.0));
            cpuPer10k.push_back(run.cpuSeconds / double(run.events) * 10000.0);
        }
        const QByteArray tag = wire == ProviderWire::openAI ? "openAI" : "anthropic";
        Bench::report(QByteArray("stream ingest " + tag + ": events per run").constData(), double(events), "events");
        Bench::report(QByteArray("stream ingest " + tag + ": events per second").constData(), Bench::median(rates),
                      "events/s");
        Bench::report(QByteArray("stream ingest " + tag + ": CPU per 10,000 events").constData(),
                      Bench::median(cpuPer10k), "s");
    }
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
    return 0;
}
