// verbolt-mock-provider: a language-model provider on 127.0.0.1 that streams a Markdown reply
// at a chosen pace, for tests, demos, screenshots and benchmarks.
#include "mockprovider.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>

#include <cstdio>

namespace {

const char *const description = R"(A provider that Verbolt can talk to, on 127.0.0.1 only.

Routes:
  POST /v1/chat/completions  OpenAI-compatible stream: content chunks of a few characters,
                             then a usage chunk with empty "choices", then "data: [DONE]".
  POST /v1/messages          Anthropic stream: message_start (input_tokens),
                             content_block_start, content_block_delta events, message_delta
                             (output_tokens), message_stop.
  GET  /v1/models            {"data":[{"id":...},...]}

Point a provider at the base URL http://127.0.0.1:<port>/v1 with any key (or the one given
with --require-key). The chosen port is printed alone on the first line of standard output.
The server runs until it is killed, or until --exit-after-requests requests have been answered.)";

bool number(const QCommandLineParser &parser, const QString &name, double &out)
{
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    out = parser.value(name).toDouble(&ok);
    if (!ok || out < 0) {
        std::fprintf(stderr, "verbolt-mock-provider: --%s needs a number of at least 0\n", qPrintable(name));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("verbolt-mock-provider"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromUtf8(description));
    parser.addHelpOption();
    parser.addOptions({
        {QStringLiteral("port"), QStringLiteral("Port to listen on; 0 picks a free one (default)."),
         QStringLiteral("N"), QStringLiteral("0")},
        {QStringLiteral("reply"), QStringLiteral("UTF-8 Markdown file whose text every chat reply streams."),
         QStringLiteral("FILE")},
        {QStringLiteral("tokens-per-second"),
         QStringLiteral("Pace of the stream in events per second; 0 sends at full speed (default)."),
         QStringLiteral("R"), QStringLiteral("0")},
        {QStringLiteral("chars-per-token"), QStringLiteral("Characters of reply text per event (default 4)."),
         QStringLiteral("N"), QStringLiteral("4")},
        {QStringLiteral("fail-status"), QStringLiteral("Answer every request with this HTTP status..."),
         QStringLiteral("S")},
        {QStringLiteral("fail-body"), QStringLiteral("...and this body (default empty)."), QStringLiteral("TEXT")},
        {QStringLiteral("drop-after"),
         QStringLiteral("Close the connection after N events of a chat stream, without an end marker."),
         QStringLiteral("N")},
        {QStringLiteral("require-key"), QStringLiteral("Answer 401 unless the request carries this API key."),
         QStringLiteral("KEY")},
        {QStringLiteral("models"), QStringLiteral("Comma-separated model ids for /v1/models."), QStringLiteral("IDS")},
        {QStringLiteral("exit-after-requests"), QStringLiteral("Exit once N requests have been answered."),
         QStringLiteral("N")},
    });
    parser.process(app);
    if (!parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "verbolt-mock-provider: unexpected argument %s (see --help)\n",
                     qPrintable(parser.positionalArguments().constFirst()));
        return 2;
    }

    MockProviderOptions options;
    double port = 0, rate = 0, chars = 4, failStatus = 0, dropAfter = -1, exitAfter = 0;
    if (!number(parser, QStringLiteral("port"), port) || !number(parser, QStringLiteral("tokens-per-second"), rate) ||
        !number(parser, QStringLiteral("chars-per-token"), chars) ||
        !number(parser, QStringLiteral("fail-status"), failStatus) ||
        !number(parser, QStringLiteral("drop-after"), dropAfter) ||
        !number(parser, QStringLiteral("exit-after-requests"), exitAfter))
        return 2;
    if (port > 65535 || chars < 1) {
        std::fprintf(stderr, "verbolt-mock-provider: --port must be at most 65535 and --chars-per-token at least 1\n");
        return 2;
    }
    if (parser.isSet(QStringLiteral("reply"))) {
        QFile file(parser.value(QStringLiteral("reply")));
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "verbolt-mock-provider: cannot read %s: %s\n", qPrintable(file.fileName()),
                         qPrintable(file.errorString()));
            return 2;
        }
        options.reply = QString::fromUtf8(file.readAll());
    }
    options.tokensPerSecond = rate;
    options.charactersPerToken = int(chars);
    options.failStatus = int(failStatus);
    options.failBody = parser.value(QStringLiteral("fail-body")).toUtf8();
    options.dropAfterEvents = int(dropAfter);
    options.requireKey = parser.value(QStringLiteral("require-key"));
    if (parser.isSet(QStringLiteral("models")))
        options.models = parser.value(QStringLiteral("models")).split(u',', Qt::SkipEmptyParts);

    MockProvider provider;
    provider.setOptions(options);
    if (!provider.listen(quint16(port))) {
        std::fprintf(stderr, "verbolt-mock-provider: cannot listen: %s\n", qPrintable(provider.errorString()));
        return 1;
    }
    std::printf("%u\n", unsigned(provider.port()));
    std::fflush(stdout);

    if (exitAfter > 0) {
        int remaining = int(exitAfter);
        QObject::connect(&provider.server(), &LoopbackServer::answered, &app, [&remaining] {
            if (--remaining == 0)
                QCoreApplication::quit();
        });
    }
    return app.exec();
}
