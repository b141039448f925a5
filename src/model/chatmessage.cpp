#include "model/chatmessage.h"

#include "model/json.h"
#include "model/jsoncoding.h"

#include <limits>

using namespace JsonCoding;

QString rawValue(ChatRole role)
{
    switch (role) {
    case ChatRole::system:
        return QStringLiteral("system");
    case ChatRole::user:
        return QStringLiteral("user");
    case ChatRole::assistant:
        break;
    }
    return QStringLiteral("assistant");
}

std::optional<ChatRole> chatRoleFromRaw(QStringView raw)
{
    if (raw == u"system")
        return ChatRole::system;
    if (raw == u"user")
        return ChatRole::user;
    if (raw == u"assistant")
        return ChatRole::assistant;
    return std::nullopt;
}

qint64 saturatingAdd(qint64 a, qint64 b)
{
    qint64 sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
}

std::optional<qint64> displayedTokenCount(const std::optional<TokenUsage> &usage)
{
    if (!usage)
        return std::nullopt;
    if (usage->totalTokens)
        return usage->totalTokens;
    const qint64 sum = saturatingAdd(usage->promptTokens.value_or(0), usage->completionTokens.value_or(0));
    if (sum < 1)
        return std::nullopt;
    return sum;
}

void toJson(Json::Writer &w, const TokenUsage &usage)
{
    w.beginObject();
    if (usage.promptTokens) {
        w.key(QLatin1StringView("promptTokens"));
        w.integer(*usage.promptTokens);
    }
    if (usage.completionTokens) {
        w.key(QLatin1StringView("completionTokens"));
        w.integer(*usage.completionTokens);
    }
    if (usage.totalTokens) {
        w.key(QLatin1StringView("totalTokens"));
        w.integer(*usage.totalTokens);
    }
    w.endObject();
}

void toJson(Json::Writer &w, const ChatMessage &message)
{
    w.beginObject();
    w.key(QLatin1StringView("id"));
    w.string(uuidText(message.id));
    w.key(QLatin1StringView("role"));
    w.string(rawValue(message.role));
    w.key(QLatin1StringView("content"));
    w.string(message.content);
    if (message.usage) {
        w.key(QLatin1StringView("usage"));
        toJson(w, *message.usage);
    }
    w.endObject();
}

bool fromJson(const Json::Value &v, TokenUsage &out, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the token usage");
        return false;
    }
    TokenUsage usage;
    if (!readOptionalInt64(v, "promptTokens", usage.promptTokens, error) ||
        !readOptionalInt64(v, "completionTokens", usage.completionTokens, error) ||
        !readOptionalInt64(v, "totalTokens", usage.totalTokens, error))
        return false;
    out = usage;
    return true;
}

static bool readUsage(const Json::Value &v, std::optional<TokenUsage> &out, QString &error)
{
    const Json::Value usage = v["usage"];
    if (!usage.isValid() || usage.isNull())
        return true;
    TokenUsage decoded;
    if (!fromJson(usage, decoded, error)) {
        error = prefixed(QStringLiteral("usage"), error);
        return false;
    }
    out = decoded;
    return true;
}

bool fromJson(const Json::Value &v, ChatMessage &out, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the message");
        return false;
    }
    ChatMessage message(ChatRole::user, QString(), std::nullopt, QUuid());
    QString role;
    if (!readUuid(v, "id", message.id, error) || !readString(v, "role", role, error) ||
        !readString(v, "content", message.content, error))
        return false;
    const auto parsedRole = chatRoleFromRaw(role);
    if (!parsedRole) {
        error = QStringLiteral("\"role\": \"%1\" is not one of system, user, assistant").arg(role);
        return false;
    }
    message.role = *parsedRole;
    if (!readUsage(v, message.usage, error))
        return false;
    out = std::move(message);
    return true;
}

bool checkMessageJson(const Json::Value &v, QString &error)
{
    // The usual well-formed message is checked without decoding its text; anything else takes the
    // full decoder, for the same description of what is wrong.
    const Json::Value id = v["id"];
    const Json::Value role = v["role"];
    const auto knownRole = [](QByteArrayView raw) { return raw == "user" || raw == "assistant" || raw == "system"; };
    if (id.isString() && isUuidText(id.stringUtf8()) && role.isString() && knownRole(role.stringUtf8()) &&
        v["content"].isString()) {
        std::optional<TokenUsage> usage;
        return readUsage(v, usage, error);
    }
    ChatMessage ignored;
    return fromJson(v, ignored, error);
}
