#pragma once

#include "model/conversation.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

// All conversations, newest first by updatedAt, and which one is selected. The list lives in one
// compact JSON file written whole and atomically (owner-only) by every mutating operation before
// it returns; the selection is never stored, so each start selects the newest conversation.
// Write failures are silent: memory keeps the change and the old file stays whole.
//
// A file that exists but cannot be read or decoded loads as empty. Before anything could be
// written over it, it is copied beside itself as "conversations.unreadable-<yyyyMMdd-HHmmss>.json"
// (moved there if it cannot be copied; if neither works the store never writes over it), and
// keptAsidePath() tells where, so a window can let the user know.
class ConversationStore final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationStore)
    Q_PROPERTY(QList<Conversation> conversations READ conversations WRITE setConversations NOTIFY conversationsChanged)
    Q_PROPERTY(std::optional<QUuid> selectedID READ selectedID WRITE setSelectedID NOTIFY selectedIDChanged)

public:
    // The usual place: <XDG data dir>/Verbolt/conversations.json, or the temporary folder's
    // Verbolt/ when the data folder cannot be made.
    explicit ConversationStore(QObject *parent = nullptr);
    // An explicit file; its folder is created if missing.
    explicit ConversationStore(const QString &filePath, QObject *parent = nullptr);

    static QString defaultFilePath();

    const QList<Conversation> &conversations() const { return m_conversations; }
    // Replaces the list in memory only; the next mutating operation saves it.
    void setConversations(const QList<Conversation> &conversations);

    std::optional<QUuid> selectedID() const { return m_selectedID; }
    void setSelectedID(const std::optional<QUuid> &id);
    // The first conversation whose id is the selected one, as a copy, or nothing.
    std::optional<Conversation> selected() const;

    QString fileURL() const { return m_filePath; }

    // Creates a "New Chat" at the front, selects it, saves, and returns it.
    Conversation newChat(const std::optional<QUuid> &providerID);
    // Replaces the messages, stamps updatedAt, derives the title of a "New Chat", moves the
    // conversation to the front and saves. An unknown id changes nothing.
    void updateMessages(const QUuid &id, const QList<ChatMessage> &messages);
    // Sets the trimmed title in place and saves; an unknown id or a blank title changes nothing.
    void rename(const QUuid &id, const QString &title);
    // Removes every conversation with that id and saves; a removed selection moves to the newest left.
    void deleteConversation(const Conversation &conversation);
    // Replaces by id or appends, re-sorts newest first, selects the first when nothing was, saves once.
    void merge(const QList<Conversation> &incoming);

    // Where an unreadable history found at start was kept, if it was.
    std::optional<QString> keptAsidePath() const { return m_keptAsidePath; }
    // The failure of the last save, or nothing when it succeeded.
    std::optional<QString> lastSaveError() const { return m_lastSaveError; }

    // The clock that stamps new and updated conversations (ReferenceDate seconds).
    void setClock(std::function<double()> clock);

signals:
    // Emitted after every change of the list.
    void conversationsChanged();
    // Emitted when the selected id changes.
    void selectedIDChanged();

private:
    void load();
    void persist();
    bool keepUnreadableAside(bool allowMove);
    void sortNewestFirst();
    void forgetEncodings();
    qsizetype indexOf(const QUuid &id) const;

    QString m_filePath;
    QList<Conversation> m_conversations;
    // The compact JSON of each conversation, index for index; empty until encoded, and emptied
    // whenever its conversation changes. A save then encodes only what changed since the last one.
    QList<QByteArray> m_encoded;
    std::optional<QUuid> m_selectedID;
    std::optional<QString> m_keptAsidePath;
    std::optional<QString> m_lastSaveError;
    bool m_unreadableFileInPlace = false;
    std::function<double()> m_clock;
};
