#pragma once

#include <QHashFunctions>
#include <QList>
#include <QString>
#include <QUuid>

#include <memory>
#include <optional>

namespace Json {
class Value;
class Writer;
} // namespace Json

// Who speaks. The raw value is both the stored form and the role's name on the wire.
enum class ChatRole { system, user, assistant };

QString rawValue(ChatRole role);
// Exact, case-sensitive lookup: "User" is no role.
std::optional<ChatRole> chatRoleFromRaw(QStringView raw);
inline size_t qHash(ChatRole role, size_t seed = 0) noexcept
{
    return ::qHash(int(role), seed);
}

// Token counts a provider reported. Each count may be absent on its own; absent is not zero.
struct TokenUsage
{
    std::optional<qint64> promptTokens;
    std::optional<qint64> completionTokens;
    std::optional<qint64> totalTokens; // only ever reported by the provider, never computed

    friend bool operator==(const TokenUsage &, const TokenUsage &) = default;
};

struct MessageVersions;

struct ChatMessage
{
    QUuid id = QUuid::createUuid();
    ChatRole role = ChatRole::user;
    QString content;
    std::optional<TokenUsage> usage;
    // The other versions of this message, each with the turns that followed it (a regenerated reply,
    // an edited prompt); absent on most messages. Never changed in place: copies share it.
    std::shared_ptr<const MessageVersions> versions;

    ChatMessage() = default;
    ChatMessage(ChatRole role, QString content, std::optional<TokenUsage> usage = std::nullopt,
                QUuid id = QUuid::createUuid())
        : id(id)
        , role(role)
        , content(std::move(content))
        , usage(std::move(usage))
    {}

    // Versions compare by what they hold, not by where they are kept.
    friend bool operator==(const ChatMessage &a, const ChatMessage &b);
};

// The versions of one message: which one is shown (0-based, in the order they were made) and the
// others, each a list that starts with that version of the message and goes on with its own later
// turns (which may have versions of their own).
struct MessageVersions
{
    int shown = 0;
    QList<QList<ChatMessage>> others;

    friend bool operator==(const MessageVersions &, const MessageVersions &) = default;
};

// Adds without overflow: sums past the 64-bit range stop at its limits. Counts that large come
// only from hand-edited or imported files, and must never show a wrapped, negative total.
qint64 saturatingAdd(qint64 a, qint64 b);

// The token count shown for a reply (transcript export, header total, bubbles): the reported
// total when there is one, whatever its value; otherwise prompt plus completion (absent counts
// as 0, saturating) when that is 1 or more; otherwise nothing.
std::optional<qint64> displayedTokenCount(const std::optional<TokenUsage> &usage);

namespace JsonCoding {
template<typename T>
struct DecodeBlank;
} // namespace JsonCoding

// Decoding thousands of messages must not draw a random id for each only to overwrite it.
template<>
struct JsonCoding::DecodeBlank<ChatMessage>
{
    static ChatMessage make() { return ChatMessage(ChatRole::user, QString(), std::nullopt, QUuid()); }
};

// Stored forms: "usage" and each count are written only when present; a message with other versions
// also has "version" (the shown one's 0-based index) and "versions" (the others, each an array of
// messages), keys that a reader knowing nothing of versions ignores, seeing the versions shown.
void toJson(Json::Writer &w, const TokenUsage &usage);
void toJson(Json::Writer &w, const ChatMessage &message);
// Missing or null counts decode as absent; a count that is no whole 64-bit number fails.
bool fromJson(const Json::Value &v, TokenUsage &out, QString &error);
// Fails when "id", "role" or "content" is missing or mistyped, the id is no UUID or the role unknown,
// or when "versions" is no array of non-empty arrays of messages or "version" is not one of them.
bool fromJson(const Json::Value &v, ChatMessage &out, QString &error);
// Succeeds exactly when fromJson would, without decoding the content.
bool checkMessageJson(const Json::Value &v, QString &error);
