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

bool operator==(const ChatMessage &a, const ChatMessage &b)
{
    if (a.id != b.id || a.role != b.role || a.content != b.content || a.usage != b.usage)
        return false;
    if (a.versions == b.versions)
        return true;
    return a.versions && b.versions && *a.versions == *b.versions;
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
    if (message.versions) {
        w.key(QLatin1StringView("version"));
        w.integer(message.versions->shown);
        w.key(QLatin1StringView("versions"));
        toJson(w, message.versions->others);
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

// Checks "versions" and "version" and returns how many other versions there are (0 when absent),
// or -1 with error set. Each version is handed to eachVersion, which checks or decodes it.
template<typename F>
static int checkVersions(const Json::Value &v, QString &error, F eachVersion)
{
    const Json::Value others = v["versions"];
    if (!others.isValid() || others.isNull())
        return 0;
    if (!others.isArray()) {
        error = wrongType("versions", "an array");
        return -1;
    }
    int count = 0;
    const bool valid = others.forEachElement([&](const Json::Value &other) {
        if (!other.isArray() || other.size() == 0) {
            error = QStringLiteral("\"versions[%1]\": expected a version: an array that starts with its message")
                        .arg(count);
            return false;
        }
        if (!eachVersion(other, error)) {
            error = prefixed(QStringLiteral("versions[%1]").arg(count), error);
            return false;
        }
        ++count;
        return true;
    });
    if (!valid)
        return -1;
    std::optional<qint64> shown;
    if (!readOptionalInt64(v, "version", shown, error))
        return -1;
    if (shown && (*shown < 0 || *shown > count)) {
        error = QStringLiteral("\"version\": %1 is not one of the message's versions").arg(*shown);
        return -1;
    }
    return count;
}

static bool readVersions(const Json::Value &v, std::shared_ptr<const MessageVersions> &out, QString &error)
{
    // Most messages have no other versions, and cost no allocation for it.
    if (const Json::Value others = v["versions"]; !others.isValid() || others.isNull())
        return true;
    auto versions = std::make_shared<MessageVersions>();
    const int count = checkVersions(v, error, [&](const Json::Value &other, QString &failure) {
        QList<ChatMessage> messages;
        if (!fromJson(other, messages, failure))
            return false;
        versions->others.append(std::move(messages));
        return true;
    });
    if (count < 0)
        return false;
    if (count == 0)
        return true;
    // Without "version" the newest is the one shown.
    versions->shown = int(v["version"].toInt64().value_or(count));
    out = std::move(versions);
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
    if (!readUsage(v, message.usage, error) || !readVersions(v, message.versions, error))
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
        if (!readUsage(v, usage, error))
            return false;
        // Hidden versions are checked the same way, message by message, without being decoded.
        return checkVersions(v, error, [](const Json::Value &other, QString &failure) {
                   qsizetype index = 0;
                   return other.forEachElement([&](const Json::Value &message) {
                       if (!checkMessageJson(message, failure)) {
                           failure = prefixed(QStringLiteral("[%1]").arg(index), failure);
                           return false;
                       }
                       ++index;
                       return true;
                   });
               }) >= 0;
    }
    ChatMessage ignored;
    return fromJson(v, ignored, error);
}
