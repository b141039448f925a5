// Memory, whatever a server or a reply sends. A stand-in server that never stops, with chunked
// bodies (an endless "data:" line, endless 64 KB events, an endless 500 body, an endless model
// list), is run against the real verbolt-inspect chat and fetch-models processes, whose peak
// resident memory is reported; then, in this process, the growth of resident memory while the
// 20,000-token reply streams in and is parsed and highlighted at every update, the peak while
// very long texts are redrawn as they grow, and what one 100 MB stream line leaves behind.
#include "harness.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"
#include "transport/chatstream.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Answers every request with a head and then a chunked body that never ends, as every real
// event-stream server frames its bodies, chosen by the path's first segment: /line/... an event
// stream whose one "data:" line never ends, in 1 MB chunks; /events/... well-formed 64 KB
// "data:" events without end, one chunk each; /error/... a 500 whose body never ends, in 1 MB
// chunks; /models/... a model list that never ends.
class EndlessServer final : public QTcpServer
{
public:
    void incomingConnection(qintptr handle) override
    {
        auto *socket = new QTcpSocket(this);
        socket->setSocketDescriptor(handle);
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::readyRead, socket, [socket] {
            const QByteArray request = socket->property("request").toByteArray() + socket->readAll();
            socket->setProperty("request", request);
            if (!request.contains("\r\n\r\n") || socket->property("answering").toBool())
                return;
            socket->setProperty("answering", true);
            const QByteArray path = request.split(' ').value(1);
            QByteArray head = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n";
            QByteArray first, filler;
            if (path.startsWith("/error/")) {
                head = "HTTP/1.1 500 Internal Server Error\r\nContent-Type: text/plain\r\n";
                filler = QByteArray(1024 * 1024, 'e');
            } else if (path.startsWith("/models/")) {
                head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
                first = "{\"data\":[";
                for (int i = 0; i < 2048; ++i)
                    filler += "{\"id\":\"model-" + QByteArray::number(i) + "\"},";
            } else if (path.startsWith("/events/")) {
                filler =
                    "data: {\"choices\":[{\"delta\":{\"content\":\"" + QByteArray(64 * 1024 - 48, 'w') + "\"}}]}\n\n";
            } else {
                first = "data: {\"choices\":[{\"delta\":{\"content\":\"";
                filler = QByteArray(1024 * 1024, 'x');
            }
            const auto chunk = [](const QByteArray &bytes) -> QByteArray {
                return QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n";
            };
            socket->write(head + "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n");
            if (!first.isEmpty())
                socket->write(chunk(first));
            const auto feed = [socket, filler = chunk(filler)] {
                while (socket->bytesToWrite() < 1024 * 1024)
                    socket->write(filler);
            };
            connect(socket, &QTcpSocket::bytesWritten, socket, feed);
            feed();
        });
    }
};

struct ChildRun
{
    double peakMb = -1;
    double wallMs = 0;
    QByteArray output;
};

// Runs the tool with input on stdin; its own peak resident memory comes from wait4.
ChildRun runTool(const QString &tool, const char *command, const QByteArray &input, const QTemporaryDir &dir)
{
    ChildRun run;
    const QByteArray inPath = dir.filePath(QStringLiteral("in.json")).toLocal8Bit();
    const QByteArray outPath = dir.filePath(QStringLiteral("out.txt")).toLocal8Bit();
    QFile in(QString::fromLocal8Bit(inPath));
    if (!in.open(QIODevice::WriteOnly) || in.write(input) != input.size())
        return run;
    in.close();
    const QByteArray program = tool.toLocal8Bit();
    QElapsedTimer timer;
    timer.start();
    const pid_t pid = fork();
    if (pid == 0) {
        const int inFd = open(inPath.constData(), O_RDONLY);
        const int outFd = open(outPath.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(inFd, 0);
        dup2(outFd, 1);
        execl(program.constData(), program.constData(), command, static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid < 0)
        return run;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid)
        return run;
    run.wallMs = double(timer.nsecsElapsed()) / 1e6;
    run.peakMb = double(usage.ru_maxrss) / 1024.0;
    QFile out(QString::fromLocal8Bit(outPath));
    if (out.open(QIODevice::ReadOnly))
        run.output = out.readAll().trimmed();
    return run;
}

QByteArray toolInput(const QString &baseURL)
{
    return R"({"provider":{"id":"6F1C8A52-3D4B-4E0A-9B6C-1A2B3C4D5E6F","name":"Endless","wire":"openAI",)"
           R"("baseURL":")" +
           baseURL.toUtf8() +
           R"(","model":"m","cachedModels":[],"apiKey":"sk-bench"},)"
           R"("messages":[{"id":"0B7E3E0C-8A3D-4F54-A0C1-0D5C6E7F8091","role":"user","content":"Hi"}]})";
}

void endlessBodies()
{
    const QString tool =
        QCoreApplication::applicationDirPath() + QStringLiteral("/../tools/verbolt-inspect/verbolt-inspect");
    if (!QFileInfo(tool).isExecutable()) {
        std::fprintf(stderr, "bench_memory: %s not built; endless bodies skipped\n", qPrintable(tool));
        return;
    }
    // On a thread of its own, so that it keeps sending while this one waits for the tool.
    QThread serverThread;
    auto *server = new EndlessServer;
    if (!server->listen(QHostAddress::LocalHost)) {
        std::fprintf(stderr, "bench_memory: the stand-in server cannot listen\n");
        delete server;
        return;
    }
    const QString base = QStringLiteral("http://127.0.0.1:%1").arg(server->serverPort());
    server->moveToThread(&serverThread);
    QObject::connect(&serverThread, &QThread::finished, server, &QObject::deleteLater);
    serverThread.start();

    QTemporaryDir dir;
    const struct
    {
        const char *name;
        const char *command;
        const char *path;
    } cases[] = {{"chunked endless data: line (1 MB chunks), chat", "chat", "/line/v1"},
                 {"chunked endless 64 KB events, chat", "chat", "/events/v1"},
                 {"chunked endless 500 body (1 MB chunks), chat", "chat", "/error/v1"},
                 {"chunked endless model list, fetch-models", "fetch-models", "/models/v1"},
                 {"chunked endless 500 body (1 MB chunks), fetch-models", "fetch-models", "/error/v1"}};
    for (const auto &c : cases) {
        const ChildRun run = runTool(tool, c.command, toolInput(base + QLatin1StringView(c.path)), dir);
        Bench::report(QByteArray(QByteArray(c.name) + ": peak resident").constData(), run.peakMb, "MB (aim < 200)");
        Bench::report(QByteArray(QByteArray(c.name) + ": time to stop").constData(), run.wallMs, "ms");
        std::printf("    %s\n", run.output.right(120).constData());
    }
    serverThread.quit();
    serverThread.wait();
}

// The reply streamed from the mock provider at full speed; every event that brings text is an
// update, at which the whole text is parsed and its code highlighted, as the transcript does.
// The provider runs as its own process, so that only the client's memory is counted.
void growthWhileStreaming()
{
    const QString tool = QCoreApplication::applicationDirPath() +
                         QStringLiteral("/../tools/verbolt-mock-provider/verbolt-mock-provider");
    QProcess mock;
    mock.start(tool, {QStringLiteral("--reply"), Bench::longReplyFile(), QStringLiteral("--tokens-per-second"),
                      QStringLiteral("0")});
    if (!mock.waitForStarted() || !mock.waitForReadyRead(10000)) {
        std::fprintf(stderr, "bench_memory: %s unavailable; growth skipped\n", qPrintable(tool));
        return;
    }
    Provider provider;
    provider.baseURL = QStringLiteral("http://127.0.0.1:%1/v1").arg(QString::fromUtf8(mock.readLine().trimmed()));
    provider.model = QStringLiteral("bench");
    provider.apiKey = QStringLiteral("sk-bench");
    const QString reply = Bench::longReply();

    // Warm the allocator, the network stack and the regular expressions on a short text first.
    const QString warm = reply.first(4000);
    SyntaxHighlighter::highlighted(QStringLiteral("let x = 1"), QStringLiteral("rust"));
    for (const MarkdownText::Block &block : MarkdownText::cachedParse(warm)) {
        if (block.kind == MarkdownText::Block::Kind::Code)
            SyntaxHighlighter::highlighted(block.code, block.language);
    }
    MarkdownText::clearCache();
    SyntaxHighlighter::clearCache();

    // One whole stream without rendering first: the network stack's one-time set-up is not
    // the reply's cost.
    const auto streamOnce = [&provider](const std::function<void(const QString &)> &update) {
        QString text;
        QEventLoop loop;
        ChatStream *stream = ChatService().stream(provider, {ChatMessage(ChatRole::user, QStringLiteral("Go"))}, &loop);
        QObject::connect(stream, &ChatStream::eventReceived, &loop, [&](const ChatEvent &event) {
            if (event.kind == ChatEvent::Kind::delta && !event.text.isEmpty()) {
                text += event.text;
                update(text);
            }
        });
        QObject::connect(stream, &ChatStream::finished, &loop, [&] { loop.quit(); });
        loop.exec();
        return text.size();
    };
    streamOnce([](const QString &) {});

    const double before = Bench::statusKb("VmRSS");
    double peak = before;
    qint64 updates = 0;
    const qsizetype length = streamOnce([&](const QString &text) {
        for (const MarkdownText::Block &block : MarkdownText::cachedParse(text)) {
            if (block.kind == MarkdownText::Block::Kind::Code)
                SyntaxHighlighter::highlighted(block.code, block.language);
        }
        if (++updates % 200 == 0)
            peak = std::max(peak, Bench::statusKb("VmRSS"));
    });
    const double after = Bench::statusKb("VmRSS");
    peak = std::max(peak, after);

    std::printf("streamed %lld characters in %lld updates\n", qlonglong(length), qlonglong(updates));
    Bench::report("long reply, parsed and highlighted per update: RSS growth", (after - before) / 1024.0,
                  "MB (aim < 10)");
    Bench::report("long reply, parsed and highlighted per update: peak growth", (peak - before) / 1024.0,
                  "MB (aim < 10)");
    Bench::report("block cache after the reply", double(MarkdownText::cacheBytes()) / 1048576.0, "MB");
    Bench::report("highlighting cache after the reply", double(SyntaxHighlighter::cacheBytes()) / 1048576.0, "MB");
    // The rest of the growth is freed memory the allocator keeps for reuse; handing it back
    // shows what is really held.
    malloc_trim(0);
    Bench::report("long reply: RSS growth once free pages are returned", (Bench::statusKb("VmRSS") - before) / 1024.0,
                  "MB");
    mock.kill();
    mock.waitForFinished();
}

// The peak resident memory f() adds, in MB: the high-water mark is reset first.
template<typename F>
double peakGrowthMb(F &&f)
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
    clear.close();
    const double before = Bench::statusKb("VmRSS");
    f();
    return (Bench::statusKb("VmHWM") - before) / 1024.0;
}

// Very long replies redrawn as they grow: the caches' near-copies of a growing text.
void longTexts()
{
    MarkdownText::clearCache();
    SyntaxHighlighter::clearCache();
    const QString reply = Bench::longReply();
    QString twoMillion;
    while (twoMillion.size() < 2000000)
        twoMillion += reply;
    twoMillion.truncate(2000000);
    Bench::report("2 M-character reply redrawn every 2,000: peak growth", peakGrowthMb([&] {
                      for (qsizetype n = 2000; n <= twoMillion.size(); n += 2000)
                          MarkdownText::cachedParse(twoMillion.first(n));
                  }),
                  "MB");
    MarkdownText::clearCache();

    const QString line = QStringLiteral("    let total = items.iter().map(|x| x * 2).sum::<u32>(); // \"sum\"\n");
    const QString code = line.repeated(2 * 1024 * 1024 / line.size());
    const double cpu = Bench::processCpuSeconds();
    Bench::report("2 M-character code block highlighted every 20,000: peak growth", peakGrowthMb([&] {
                      for (qsizetype n = 20000; n <= code.size(); n += 20000)
                          SyntaxHighlighter::highlighted(code.first(n), QStringLiteral("rust"));
                  }),
                  "MB");
    Bench::report("2 M-character code block highlighted every 20,000: CPU", Bench::processCpuSeconds() - cpu, "s");
    SyntaxHighlighter::clearCache();
}

// What the stream line parser holds after one 100 MB line.
void hugeLine()
{
    const double before = Bench::statusKb("VmRSS");
    {
        const QByteArray line =
            R"(data: {"choices":[{"delta":{"content":")" + QByteArray(100 * 1024 * 1024, 'x') + R"("}}]})";
        const ChatService::Parsed parsed = ChatService::parseSSELine(QByteArrayView(line), ProviderWire::openAI);
        if (parsed.text.size() != 100 * 1024 * 1024)
            std::fprintf(stderr, "bench_memory: the 100 MB line did not parse\n");
    }
    Bench::report("resident after one 100 MB stream line, retained", (Bench::statusKb("VmRSS") - before) / 1024.0,
                  "MB");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    endlessBodies();
    growthWhileStreaming();
    longTexts();
    hugeLine();
    return 0;
}
