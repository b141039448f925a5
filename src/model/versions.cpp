#include "model/versions.h"

#include <algorithm>

namespace MessageVersioning {

int versionCount(const ChatMessage &message)
{
    return message.versions ? int(message.versions->others.size()) + 1 : 1;
}

int versionIndex(const ChatMessage &message)
{
    return message.versions ? message.versions->shown : 0;
}

namespace {

// Every version of messages[index], each with its own later turns, in version order; the versions
// travel on the shown one and are taken off it here.
QList<QList<ChatMessage>> allVersions(const QList<ChatMessage> &messages, qsizetype index)
{
    QList<ChatMessage> shownTail = messages.mid(index);
    const std::shared_ptr<const MessageVersions> versions = std::exchange(shownTail.first().versions, nullptr);
    QList<QList<ChatMessage>> all = versions ? versions->others : QList<QList<ChatMessage>>();
    all.insert(versions ? versions->shown : 0, std::move(shownTail));
    return all;
}

QList<ChatMessage> showing(const QList<ChatMessage> &messages, qsizetype index, QList<QList<ChatMessage>> all,
                           int target)
{
    QList<ChatMessage> tail = all.takeAt(target);
    if (!all.isEmpty()) {
        auto versions = std::make_shared<MessageVersions>();
        versions->shown = target;
        versions->others = std::move(all);
        tail.first().versions = std::move(versions);
    }
    QList<ChatMessage> result;
    result.reserve(index + tail.size());
    result.append(messages.first(index));
    result.append(tail);
    return result;
}

void collect(const QList<ChatMessage> &messages, QSet<QUuid> &ids)
{
    for (const ChatMessage &m : messages) {
        ids.insert(m.id);
        if (m.versions) {
            for (const QList<ChatMessage> &other : m.versions->others)
                collect(other, ids);
        }
    }
}

void collect(const QList<ChatMessage> &messages, const QSet<QUuid> &ids, QHash<QUuid, ChatMessage> &found)
{
    for (const ChatMessage &m : messages) {
        if (ids.contains(m.id))
            found.insert(m.id, m);
        if (m.versions) {
            for (const QList<ChatMessage> &other : m.versions->others)
                collect(other, ids, found);
        }
    }
}

// Whether anything in messages, at any depth, has a copy; so that untouched branches stay shared.
bool touches(const QList<ChatMessage> &messages, const QHash<QUuid, ChatMessage> &copies)
{
    for (const ChatMessage &m : messages) {
        if (copies.contains(m.id))
            return true;
        if (m.versions) {
            for (const QList<ChatMessage> &other : m.versions->others) {
                if (touches(other, copies))
                    return true;
            }
        }
    }
    return false;
}

} // namespace

QList<ChatMessage> addVersion(const QList<ChatMessage> &messages, qsizetype index, ChatMessage replacement)
{
    if (index < 0 || index >= messages.size())
        return messages;
    QList<QList<ChatMessage>> all = allVersions(messages, index);
    replacement.versions = nullptr;
    all.append(QList<ChatMessage>{std::move(replacement)});
    const int newest = int(all.size()) - 1;
    return showing(messages, index, std::move(all), newest);
}

QList<ChatMessage> showVersion(const QList<ChatMessage> &messages, qsizetype index, int target)
{
    if (index < 0 || index >= messages.size() || target < 0 || target >= versionCount(messages.at(index)) ||
        target == versionIndex(messages.at(index)))
        return messages;
    return showing(messages, index, allVersions(messages, index), target);
}

QList<ChatMessage> dropShownVersion(const QList<ChatMessage> &messages, qsizetype index, int fallback)
{
    if (index < 0 || index >= messages.size())
        return messages;
    QList<QList<ChatMessage>> all = allVersions(messages, index);
    all.removeAt(versionIndex(messages.at(index)));
    if (all.isEmpty())
        return messages.first(index);
    const int target = std::clamp(fallback, 0, int(all.size()) - 1);
    return showing(messages, index, std::move(all), target);
}

QSet<QUuid> allIDs(const QList<ChatMessage> &messages)
{
    QSet<QUuid> ids;
    ids.reserve(messages.size());
    collect(messages, ids);
    return ids;
}

QSet<QUuid> hiddenIDs(const ChatMessage &message)
{
    QSet<QUuid> ids;
    if (message.versions) {
        for (const QList<ChatMessage> &other : message.versions->others)
            collect(other, ids);
    }
    return ids;
}

QHash<QUuid, ChatMessage> findAll(const QList<ChatMessage> &messages, const QSet<QUuid> &ids)
{
    QHash<QUuid, ChatMessage> found;
    if (!ids.isEmpty())
        collect(messages, ids, found);
    return found;
}

QList<ChatMessage> withCopies(const QList<ChatMessage> &messages, const QHash<QUuid, ChatMessage> &copies)
{
    if (copies.isEmpty() || !touches(messages, copies))
        return messages;
    QList<ChatMessage> result = messages;
    for (ChatMessage &m : result) {
        if (const auto copy = copies.constFind(m.id); copy != copies.cend()) {
            m.content = copy->content;
            m.usage = copy->usage;
        }
        if (m.versions && std::any_of(m.versions->others.cbegin(), m.versions->others.cend(),
                                      [&](const QList<ChatMessage> &other) { return touches(other, copies); })) {
            auto versions = std::make_shared<MessageVersions>(*m.versions);
            for (QList<ChatMessage> &other : versions->others)
                other = withCopies(other, copies);
            m.versions = std::move(versions);
        }
    }
    return result;
}

} // namespace MessageVersioning
