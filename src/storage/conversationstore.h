#pragma once

#include "model/conversation.h"

#include <QDate>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QUuid>

#include <functional>
#include <memory>
#include <optional>

class HistoryWriter;

// All conversations, newest first by updatedAt, and which one is selected. The list lives in one
// compact JSON file, written whole and atomically (owner-only) after every mutating operation; the
// selection is never stored, so each start selects the newest conversation.
//
// Saving happens on a writer thread: an operation hands over a snapshot of the list and returns at
// once, the file ends with the newest state, and waitForSaved() (also run by the destructor and
// when the application is about to quit) blocks until everything handed over is on disk. Write
// failures are silent: memory keeps the change, the old file stays whole and lastSaveError() says
// why. Other processes may write the same file: each save holds a lock beside it and first merges
// in whatever another process saved since (by id, never deleting); records taken in that way show
// in the list too, announced by conversationsChanged() and conversationUpdated().
//
// A file that exists but cannot be read or decoded loads as empty. Before anything could be
// written over it, it is copied beside itself as "conversations.unreadable-<yyyyMMdd-HHmmss>.json"
// (one copy per distinct content; moved there if it cannot be copied; if neither works the store
// never writes over it), and keptAsidePath() tells where, so a window can let the user know.
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
    // Waits for the pending save.
    ~ConversationStore() override;

    static QString defaultFilePath();

    const QList<Conversation> &conversations() const { return m_conversations; }
    // Replaces the list in memory only; the next mutating operation saves it.
    void setConversations(const QList<Conversation> &conversations);

    std::optional<QUuid> selectedID() const { return m_selectedID; }
    void setSelectedID(const std::optional<QUuid> &id);
    // The first conversation whose id is the selected one, as a copy, or nothing.
    std::optional<Conversation> selected() const;
    // The conversation with that id, or nullptr. The pointer is into the list: it is valid until
    // the list next changes.
    const Conversation *find(const QUuid &id) const;
    // Its position in conversations(), or -1.
    qsizetype indexOf(const QUuid &id) const;

    QString fileURL() const { return m_filePath; }

    // The standing instructions every new conversation starts with (empty: none). Kept in the
    // preferences ("defaultSystemPrompt.v1"), not in the history.
    QString defaultSystemPrompt() const;
    void setDefaultSystemPrompt(const QString &text);

    // Creates a "New Chat" at the front (holding the default system prompt as its first message,
    // if there is one), selects it, saves, and returns it.
    Conversation newChat(const std::optional<QUuid> &providerID);
    // What New Chat does for the user: selects the newest conversation when it has no messages
    // yet (so repeated presses leave one empty chat), otherwise newChat(). Returns the selection.
    Conversation startChat(const std::optional<QUuid> &providerID);
    // Replaces the messages, stamps updatedAt, derives the title of a "New Chat", moves the
    // conversation to the front and saves. An unknown id changes nothing.
    void updateMessages(const QUuid &id, const QList<ChatMessage> &messages);
    // Sets the trimmed title in place and saves; an unknown id or a blank title changes nothing.
    void rename(const QUuid &id, const QString &title);
    // Removes every conversation with that id and saves; a removed selection moves to the newest left.
    void deleteConversation(const Conversation &conversation);
    // Replaces by id or appends, re-sorts newest first, selects the first when nothing was, saves once.
    void merge(const QList<Conversation> &incoming);

    // Brings back the conversations of an earlier copy of the history: one missing here is added,
    // one here with an older updatedAt is replaced, nothing is removed. Saves once when anything
    // came back, and returns how many conversations did.
    qsizetype restore(const QList<Conversation> &copy);

    // Blocks until every save handed to the writer is on disk (or has failed), then takes in what
    // those saves found (errors, another process's records) before it returns.
    void waitForSaved();

    // Where an unreadable history was kept, if one was found.
    std::optional<QString> keptAsidePath() const { return m_keptAsidePath; }
    // The failure of the last save that finished, or nothing when it succeeded.
    std::optional<QString> lastSaveError() const { return m_lastSaveError; }

    // The clock that stamps new and updated conversations (ReferenceDate seconds).
    void setClock(std::function<double()> clock);
    // The local day a save belongs to, for the history's daily copies; today by default.
    void setToday(std::function<QDate()> today);

    // A reply that a window is still streaming, so that every other window on its conversation can
    // show it as it grows. Kept in memory only, never saved: the streaming window saves the reply
    // when it ends. afterID is the message the reply answers.
    struct LiveReply
    {
        QUuid conversationID;
        QUuid afterID;
        ChatMessage message;
    };
    // Adds or replaces (by the message's id) a live reply.
    void setLiveReply(const QUuid &conversationID, const QUuid &afterID, const ChatMessage &reply);
    // Forgets a live reply; an unknown id does nothing.
    void endLiveReply(const QUuid &replyID);
    // The live replies of one conversation, oldest first.
    QList<LiveReply> liveReplies(const QUuid &conversationID) const;

signals:
    // Emitted after every change of the list.
    void conversationsChanged();
    // Emitted when the selected id changes.
    void selectedIDChanged();
    // Emitted after an operation here (updateMessages, rename, merge) or a save that took in another
    // process's changes changed the record with this id.
    void conversationUpdated(const QUuid &id);
    // Emitted when a live reply of a conversation was set or ended.
    void liveReplyChanged(const QUuid &conversationID, const QUuid &replyID);

private:
    void load();
    void persist();
    void markChanged(const QUuid &id);
    void markDeleted(const QUuid &id);
    void takeSaveOutcomes();
    void sortNewestFirst();

    QString m_filePath;
    QList<Conversation> m_conversations;
    std::optional<QUuid> m_selectedID;
    std::optional<QString> m_keptAsidePath;
    std::optional<QString> m_lastSaveError;
    std::function<double()> m_clock;
    QList<LiveReply> m_liveReplies;
    std::function<QDate()> m_today;

    // What changed since the last save was handed over, and in which save each id last changed:
    // another process's record never replaces one changed here after the save that found it.
    quint64 m_saveGeneration = 0;
    QSet<QUuid> m_changed;
    QSet<QUuid> m_deleted;
    QHash<QUuid, quint64> m_changedIn;
    std::unique_ptr<HistoryWriter> m_writer;
};
