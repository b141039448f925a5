#pragma once

#include "model/chatmessage.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// Instants are seconds, with fraction, since 2001-01-01 00:00:00 UTC: the stored form of every
// date in the conversation file and the configuration archive.
namespace ReferenceDate {
constexpr qint64 unixOffsetSeconds = 978307200;
double now();
double fromDateTime(const QDateTime &dateTime);
QDateTime toDateTime(double seconds);
} // namespace ReferenceDate

// One titled thread of messages: the persisted unit of chat history.
struct Conversation
{
    QUuid id;
    QString title;
    std::optional<QUuid> providerID; // the provider selected when it was created, if any
    QList<ChatMessage> messages;
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
