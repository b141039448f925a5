// Subcommands over the transport: sse, request.
#include "inspect.h"
#include "model/jsoncoding.h"
#include "transport/chatservice.h"

namespace {

std::optional<ProviderWire> wireOption(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--wire")}))
        return std::nullopt;
    const auto raw = Inspect::option(args, QStringLiteral("--wire"));
    const auto wire = raw ? providerWireFromRaw(*raw) : std::nullopt;
    if (!wire)
        Inspect::usage(QStringLiteral("sse needs --wire openAI|anthropic"));
    return wire;
}

void writeUsage(Json::Writer &w, const TokenUsage &usage)
{
    w.key(QLatin1StringView("usage"));
    toJson(w, usage);
}

int sse(const QStringList &args)
{
    const auto wire = wireOption(args);
    if (!wire)
        return 2;
    const QByteArray input = Inspect::readStdin();
    QByteArray out;
    // Every piece between line feeds is a line, one trailing "\r" dropped; the input is taken
    // whole, so a final line feed leaves an empty last line (which classifies as skip).
    QList<QByteArrayView> lines;
    qsizetype start = 0;
    for (;;) {
        const qsizetype end = input.indexOf('\n', start);
        QByteArrayView line = QByteArrayView(input).sliced(start, (end < 0 ? input.size() : end) - start);
        if (line.endsWith('\r'))
            line.chop(1);
        lines.append(line);
        if (end < 0)
            break;
        start = end + 1;
    }
    for (const QByteArrayView line : lines) {
        const ChatService::Parsed parsed = ChatService::parseSSELine(line, *wire);
        Json::Writer w;
        w.beginObject();
        switch (parsed.kind) {
        case ChatService::Parsed::Kind::delta:
            w.key(QLatin1StringView("delta"));
            w.string(parsed.text);
            break;
        case ChatService::Parsed::Kind::usage:
            writeUsage(w, parsed.usage);
            break;
        case ChatService::Parsed::Kind::done:
            w.key(QLatin1StringView("done"));
            w.boolean(true);
            break;
        case ChatService::Parsed::Kind::skip:
            w.key(QLatin1StringView("skip"));
            w.boolean(true);
            break;
        }
        w.endObject();
        out += w.data() + '\n';
    }
    Inspect::printRaw(out);
    return 0;
}

int request(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("request takes no arguments"));
    const Json::Document doc = Inspect::readStdinJson();
    Provider provider;
    QList<ChatMessage> messages;
    QString error;
    if (!doc.root().isObject())
        return Inspect::fail(QStringLiteral("Expected an object with \"provider\" and \"messages\""));
    if (!fromJson(doc.root()["provider"], provider, error))
        return Inspect::fail(JsonCoding::prefixed(QStringLiteral("provider"), error));
    if (!fromJson(doc.root()["messages"], messages, error))
        return Inspect::fail(JsonCoding::prefixed(QStringLiteral("messages"), error));

    const auto built = ChatService::makeRequest(provider, messages, provider.apiKey);
    if (const auto *failure = std::get_if<ChatServiceError>(&built))
        return Inspect::fail(failure->errorDescription());
    Inspect::printLine(Inspect::describeRequest(std::get<HttpRequest>(built)));
    return 0;
}

} // namespace

QByteArray Inspect::describeRequest(const HttpRequest &request)
{
    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("url"));
    w.string(request.url.toString(QUrl::FullyEncoded));
    w.key(QLatin1StringView("method"));
    w.stringUtf8(request.method);
    w.key(QLatin1StringView("headers"));
    w.beginArray();
    for (const auto &[name, value] : request.headers) {
        w.beginArray();
        w.stringUtf8(name);
        w.stringUtf8(value);
        w.endArray();
    }
    w.endArray();
    w.key(QLatin1StringView("timeout"));
    w.integer(request.timeoutMs / 1000);
    w.key(QLatin1StringView("body"));
    if (request.body)
        w.raw(*request.body);
    else
        w.null();
    w.endObject();
    return w.take();
}

VERBOLT_INSPECT_COMMAND("sse", sse);
VERBOLT_INSPECT_COMMAND("request", request);
