#include "transport/chatservice.h"

#include "model/json.h"
#include "model/text.h"

QString ChatServiceError::errorDescription() const
{
    switch (kind) {
    case Kind::http:
        return QStringLiteral("Provider returned HTTP ") + QString::number(status) + QStringLiteral(": ") + body;
    case Kind::decoding:
        return QStringLiteral("Could not parse the provider response: ") + message;
    case Kind::missingAPIKey:
        return QStringLiteral("No API key set for this provider. Open Settings and paste your key.");
    case Kind::invalidBaseURL:
        return QStringLiteral("The provider Base URL is empty or invalid.");
    case Kind::controlCharacterInKey:
        return QStringLiteral(
            "The API key contains a line break or another control character. Paste it again in Settings.");
    case Kind::lineTooLong:
        return QStringLiteral("The provider sent a line longer than 16 MB.");
    case Kind::replyTooLong:
        return QStringLiteral("The reply passed 32 MB and was stopped.");
    case Kind::bodyTooLarge:
        return QStringLiteral("Provider returned HTTP ") + QString::number(status) +
               QStringLiteral(" with a body over 16 MB.");
    case Kind::modelListTooLarge:
        break;
    }
    return QStringLiteral("The model list is larger than 16 MB.");
}

QString errorDescription(const ServiceError &error)
{
    if (const auto *service = std::get_if<ChatServiceError>(&error))
        return service->errorDescription();
    return std::get<TransferError>(error).description;
}

std::variant<HttpRequest, ChatServiceError>
ChatService::makeRequest(const Provider &provider, const QList<ChatMessage> &messages, const QString &apiKey)
{
    const bool anthropic = provider.wire == ProviderWire::anthropic;
    const auto url = endpointURL(provider.baseURL, anthropic ? u"/messages" : u"/chat/completions");
    if (!url)
        return ChatServiceError::invalidBaseURL();

    HttpRequest request;
    request.url = *url;
    request.method = "POST";
    request.headers.append(qMakePair(QByteArray("Content-Type"), QByteArray("application/json")));
    request.headers.append(authenticationHeaders(provider.wire, apiKey));

    const auto writeMessage = [](Json::Writer &w, const ChatMessage &m) {
        w.beginObject();
        w.key(QLatin1StringView("role"));
        w.string(rawValue(m.role));
        w.key(QLatin1StringView("content"));
        w.string(m.content);
        w.endObject();
    };

    Json::Writer w;
    w.beginObject();
    w.key(QLatin1StringView("model"));
    w.string(provider.model);
    if (anthropic) {
        // Anthropic takes system prompts apart from the turns, as one text.
        QString system;
        bool anySystem = false;
        for (const ChatMessage &m : messages) {
            if (m.role != ChatRole::system)
                continue;
            if (anySystem)
                system += QStringLiteral("\n\n");
            system += m.content;
            anySystem = true;
        }
        w.key(QLatin1StringView("max_tokens"));
        w.integer(4096);
        w.key(QLatin1StringView("stream"));
        w.boolean(true);
        w.key(QLatin1StringView("messages"));
        w.beginArray();
        for (const ChatMessage &m : messages) {
            if (m.role != ChatRole::system)
                writeMessage(w, m);
        }
        w.endArray();
        if (!system.isEmpty()) {
            w.key(QLatin1StringView("system"));
            w.string(system);
        }
    } else {
        w.key(QLatin1StringView("stream"));
        w.boolean(true);
        w.key(QLatin1StringView("stream_options"));
        w.beginObject();
        w.key(QLatin1StringView("include_usage"));
        w.boolean(true);
        w.endObject();
        w.key(QLatin1StringView("messages"));
        w.beginArray();
        for (const ChatMessage &m : messages)
            writeMessage(w, m);
        w.endArray();
    }
    w.endObject();
    request.body = w.take();
    return request;
}

namespace {

using Parsed = ChatService::Parsed;

Parsed skip()
{
    return {};
}

Parsed delta(const Json::Value &text)
{
    return {Parsed::Kind::delta, text.toString(), {}};
}

Parsed usage(TokenUsage counts)
{
    return {Parsed::Kind::usage, {}, counts};
}

Parsed parseOpenAI(const Json::Value &obj)
{
    const Json::Value choices = obj["choices"];
    if (choices.isArray()) {
        Json::Value first;
        bool allObjects = true;
        choices.forEachElement([&](const Json::Value &choice) {
            if (!choice.isObject()) {
                allObjects = false;
                return false;
            }
            if (!first.isValid())
                first = choice;
            return true;
        });
        if (allObjects && first.isValid()) {
            const Json::Value content = first["delta"]["content"];
            if (content.isString() && !content.stringUtf8().isEmpty())
                return delta(content);
        }
    }
    const Json::Value counts = obj["usage"];
    if (counts.isObject()) {
        return usage({counts["prompt_tokens"].toInt64(), counts["completion_tokens"].toInt64(),
                      counts["total_tokens"].toInt64()});
    }
    return skip();
}

Parsed parseAnthropic(const Json::Value &obj)
{
    const Json::Value typeValue = obj["type"];
    if (!typeValue.isString())
        return skip();
    const QByteArrayView type = typeValue.stringUtf8();
    if (type == "content_block_delta") {
        const Json::Value text = obj["delta"]["text"];
        return text.isString() ? delta(text) : skip();
    }
    if (type == "message_start") {
        const Json::Value counts = obj["message"]["usage"];
        return counts.isObject() ? usage({counts["input_tokens"].toInt64(), {}, {}}) : skip();
    }
    if (type == "message_delta") {
        const Json::Value counts = obj["usage"];
        return counts.isObject() ? usage({{}, counts["output_tokens"].toInt64(), {}}) : skip();
    }
    if (type == "message_stop")
        return {Parsed::Kind::done, {}, {}};
    return skip();
}

} // namespace

ChatService::Parsed ChatService::parseSSELine(QByteArrayView line, ProviderWire wire)
{
    if (!line.startsWith("data:"))
        return skip();
    const QByteArrayView payload = trimHorizontalUtf8(line.sliced(5));
    if (payload.isEmpty())
        return skip();
    if (payload == "[DONE]")
        return {Parsed::Kind::done, {}, {}};

    // One parser per thread: its buffers are reused from line to line, except those a rare huge
    // line made large, which would otherwise stay for the life of the process.
    thread_local Json::Parser parser;
    const Json::Value root = parser.parse(payload);
    Parsed parsed;
    if (root.isObject())
        parsed = wire == ProviderWire::anthropic ? parseAnthropic(root) : parseOpenAI(root);
    parser.releaseBuffersAbove(1024 * 1024);
    return parsed;
}

ChatService::Parsed ChatService::parseSSELine(QStringView line, ProviderWire wire)
{
    return parseSSELine(QByteArrayView(line.toUtf8()), wire);
}
