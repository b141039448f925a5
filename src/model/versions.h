#pragma once

#include "model/chatmessage.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QUuid>

// Versions of a conversation's turns. A regenerated reply or an edited and resent prompt becomes a
// new version of that message and of everything after it; the earlier ones stay on the message
// shown in their place (ChatMessage::versions), each with the turns that followed it. The list of
// messages is always the path shown: what is sent, exported and counted.
//
// Every function returns a new list and leaves its argument alone; the parts that did not change
// are shared with it, so switching costs the length of the path, not the size of the versions.
namespace MessageVersioning {

// How many versions the message has (1 when it has no others), and which one it is (0-based).
int versionCount(const ChatMessage &message);
int versionIndex(const ChatMessage &message);

// Keeps messages[index] and everything after it as a hidden version, and makes replacement the
// shown version at index, as the newest: returns the messages before index followed by it. An index
// outside the list returns the list unchanged.
QList<ChatMessage> addVersion(const QList<ChatMessage> &messages, qsizetype index, ChatMessage replacement);

// Shows version target (0-based) of messages[index], with the turns that followed it. The version
// shown until now keeps its own turns. Returns the list unchanged when index or target is out of
// range or target is already shown.
QList<ChatMessage> showVersion(const QList<ChatMessage> &messages, qsizetype index, int target);

// Drops the version shown at index, with its later turns, and shows version fallback of the ones
// left (clamped to them); a message without others is removed with everything after it.
QList<ChatMessage> dropShownVersion(const QList<ChatMessage> &messages, qsizetype index, int fallback);

// The ids of every message: the path shown and all hidden versions, at any depth.
QSet<QUuid> allIDs(const QList<ChatMessage> &messages);
// The ids of the versions message keeps hidden, with their later turns, at any depth.
QSet<QUuid> hiddenIDs(const ChatMessage &message);

// The messages (shown or hidden, at any depth) whose id is one of ids, by id.
QHash<QUuid, ChatMessage> findAll(const QList<ChatMessage> &messages, const QSet<QUuid> &ids);
// The messages with the text and usage of every message (shown or hidden, at any depth) whose id is
// in copies taken from its copy there; each keeps its own versions.
QList<ChatMessage> withCopies(const QList<ChatMessage> &messages, const QHash<QUuid, ChatMessage> &copies);

} // namespace MessageVersioning
