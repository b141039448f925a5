#pragma once

#include "model/chatmessage.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUuid>

#include <memory>
#include <optional>

// Instants are seconds, with fraction, since 2001-01-01 00:00:00 UTC: the stored form of every
// date in the conversation file and the configuration archive.
namespace ReferenceDate {
constexpr qint64 unixOffsetSeconds = 978307200;
double now();
double fromDateTime(const QDateTime &dateTime);
QDateTime toDateTime(double seconds);
} // namespace ReferenceDate

// The messages of a conversation: a plain list of ChatMessage to everything that reads or changes
// it. A list loaded from the history file may instead keep the stored form it was read in (its
// compact JSON, already validated) until something first reads a message, so that a large history
// costs memory about its file's size rather than the twice as much of decoded text. Reading decodes
// once (safely from any thread); changing it turns it into a plain list.
class MessageList
{
public:
    MessageList() = default;
    MessageList(QList<ChatMessage> messages) // implicit: a list is assigned as before
        : m_list(std::move(messages))
    {}
    MessageList(std::initializer_list<ChatMessage> messages)
        : m_list(messages)
    {}

    // A list kept in its stored form: json, which lies inside buffer, must be a compact JSON array of
    // count messages that decodes without failure (it is not checked again).
    static MessageList fromStored(std::shared_ptr<const QByteArray> buffer, QByteArrayView json, qsizetype count);
    // The stored form, when the list still has it.
    std::optional<QByteArrayView> stored() const;

    const QList<ChatMessage> &list() const;
    QList<ChatMessage> &list();
    operator const QList<ChatMessage> &() const { return list(); }

    qsizetype size() const;
    qsizetype count() const { return size(); }
    bool isEmpty() const { return size() == 0; }
    const ChatMessage &at(qsizetype i) const { return list().at(i); }
    const ChatMessage &operator[](qsizetype i) const { return list().at(i); }
    ChatMessage &operator[](qsizetype i) { return list()[i]; }
    const ChatMessage &first() const { return list().first(); }
    const ChatMessage &last() const { return list().last(); }
    const ChatMessage &constFirst() const { return list().first(); }
    const ChatMessage &constLast() const { return list().last(); }
    ChatMessage &first() { return list().first(); }
    ChatMessage &last() { return list().last(); }
    QList<ChatMessage>::const_iterator begin() const { return list().cbegin(); }
    QList<ChatMessage>::const_iterator end() const { return list().cend(); }
    QList<ChatMessage>::const_iterator cbegin() const { return list().cbegin(); }
    QList<ChatMessage>::const_iterator cend() const { return list().cend(); }
    QList<ChatMessage>::const_iterator constBegin() const { return list().cbegin(); }
    QList<ChatMessage>::const_iterator constEnd() const { return list().cend(); }
    QList<ChatMessage>::iterator begin() { return list().begin(); }
    QList<ChatMessage>::iterator end() { return list().end(); }
    qsizetype length() const { return size(); }
    qsizetype indexOf(const ChatMessage &message) const { return list().indexOf(message); }
    bool contains(const ChatMessage &message) const { return list().contains(message); }
    QList<ChatMessage> mid(qsizetype position, qsizetype length = -1) const { return list().mid(position, length); }
    QList<ChatMessage> first(qsizetype n) const { return list().first(n); }
    QList<ChatMessage> last(qsizetype n) const { return list().last(n); }
    void append(const ChatMessage &message) { list().append(message); }
    void append(const QList<ChatMessage> &messages) { list().append(messages); }
    void prepend(const ChatMessage &message) { list().prepend(message); }
    void insert(qsizetype i, const ChatMessage &message) { list().insert(i, message); }
    void removeAt(qsizetype i) { list().removeAt(i); }
    void removeLast() { list().removeLast(); }
    void removeFirst() { list().removeFirst(); }
    ChatMessage takeLast() { return list().takeLast(); }
    void reserve(qsizetype n) { list().reserve(n); }
    void clear() { *this = MessageList(); }

    friend bool operator==(const MessageList &a, const MessageList &b);
    friend bool operator==(const MessageList &a, const QList<ChatMessage> &b) { return a.list() == b; }
    friend bool operator==(const QList<ChatMessage> &a, const MessageList &b) { return a == b.list(); }

private:
    struct Stored;
    QList<ChatMessage> m_list;
    // Shared by every copy, also across threads: it never changes once made, except for its
    // decoded list, which is filled exactly once.
    std::shared_ptr<const Stored> m_stored;
};

// One titled thread of messages: the persisted unit of chat history.
struct Conversation
{
    QUuid id;
    QString title;
    std::optional<QUuid> providerID; // the provider selected when it was created, if any
    MessageList messages;
    double createdAt = 0; // ReferenceDate seconds
    double updatedAt = 0;

    friend bool operator==(const Conversation &, const Conversation &) = default;

    // The title a "New Chat" takes from its first user message: trimmed, line feeds made
    // spaces, at most 48 user-perceived characters. Nothing when there is no user message or
    // the first one is blank.
    static std::optional<QString> derivedTitle(const QList<ChatMessage> &messages);
};

// Keys written in the order id, title, providerID (only when present), messages, createdAt,
// updatedAt. Dates must be JSON numbers.
void toJson(Json::Writer &w, const Conversation &conversation);
bool fromJson(const Json::Value &v, Conversation &out, QString &error);

// The stored form of one conversation, as toJson writes it compactly, except that messages still in
// their stored form are copied as they are (without being decoded).
QByteArray encodeStored(const Conversation &conversation);
// Decodes and checks the conversation object v as fromJson does, except that its messages are only
// checked: when messagesJson (inside buffer) is the compact text of v's "messages" array as found in
// the file, the list keeps that stored form; when it is empty, the messages are decoded.
bool fromStoredJson(const Json::Value &v, const std::shared_ptr<const QByteArray> &buffer, QByteArrayView messagesJson,
                    Conversation &out, QString &error);
