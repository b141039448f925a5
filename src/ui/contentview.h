#pragma once

#include "model/conversation.h"

#include <QList>
#include <QUuid>
#include <QWidget>

#include <chrono>
#include <functional>
#include <optional>

class ChatHeader;
class ChatViewModel;
class ComposerRow;
class ConversationSidebar;
class ConversationStore;
class DeletedChatBar;
class FindBar;
class PaneCycler;
class ProviderStore;
class QLabel;
class QSplitter;
class QStackedWidget;
class ScrollController;
class TranscriptFind;

// The content of a main window: the conversation sidebar on the left and, on the right, either
// the invitation to add a provider (while there is none) or the chat: the header, the transcript
// and the composer row.
//
// Owns the window's chat view model and scroll controller. Reads and writes the two shared stores,
// which must outlive it. The selected conversation is the store's, shared by every window: a
// change of it from anywhere reloads this window's transcript at once, stopping a reply that
// streams here. The first time the view is shown it connects the view model to the store and
// shows the selected conversation.
class ContentView final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ContentView)

public:
    ContentView(ProviderStore *store, ConversationStore *chats, QWidget *parent = nullptr);
    ~ContentView() override;

    ChatViewModel *chat() const { return m_chat; }
    ScrollController *scroll() const { return m_scroll; }
    ConversationSidebar *sidebar() const { return m_sidebar; }
    // The chat area's parts: nullptr until the first provider appears.
    ChatHeader *header() const { return m_header; }
    ComposerRow *composerRow() const { return m_composerRow; }
    FindBar *findBar() const { return m_findBar; }
    TranscriptFind *transcriptFind() const { return m_find; }

    // Opens the find bar (Ctrl+F) with its words selected, finding them again if they were
    // cleared. Does nothing while no chat is shown.
    void openFind();
    // Opens the find bar on these words, with the first hit in message fromMessage or after it
    // current and in view (a chosen search result).
    void openFindAt(const QString &words, qsizetype fromMessage);
    // Closes the find bar and takes its marks off; the composer gets the focus.
    void closeFind();

    // Sends the composer's text, first creating and selecting a conversation when none is
    // selected. Runs on Return whatever the text; the view model ignores a blank one.
    void send();
    // Puts the focus in the composer, when the chat area is shown.
    void focusComposer();
    // Streams a new version of the last reply with the provider and model selected now (the last
    // reply's "Regenerate", Ctrl+Shift+R); nothing when there is no reply to regenerate.
    void regenerate();
    // Resends the user message at index as text, a new version of it and of everything after it.
    void resend(qsizetype index, const QString &text);
    // Opens the editor of a conversation's standing instructions; Save stores them at once.
    void openSystemPromptDialog(const QUuid &conversationID);
    // Sets a conversation's system prompt: through this window's transcript when it shows it,
    // otherwise in the store.
    void setSystemPrompt(const QUuid &conversationID, const QString &text);

    // Asked before a message over 1 MB (UTF-8) is sent, with its size in bytes; true sends it.
    // The shipped question is a dialog; tests answer it themselves.
    void setLargeSendQuestion(std::function<bool(qint64 bytes)> question) { m_largeSendQuestion = std::move(question); }
    static constexpr qint64 largeMessageBytes = 1'000'000;

    // How long after a conversation switch the composer takes the focus (0.1 s shipped).
    void setFocusDelay(std::chrono::milliseconds delay) { m_focusDelay = delay; }

signals:
    // Emitted when the user asks for the settings window ("Open Settings", the header's button).
    void settingsRequested();

protected:
    void showEvent(QShowEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    QWidget *buildEmptyState();
    void ensureChatArea();

    void handleSelectionChanged();
    void keepFocus();
    void handleConversationUpdated(const QUuid &id);
    void handleProvidersChanged();
    void showConversation(const std::optional<Conversation> &conversation);
    void applyColours();
    void handleFindMoved();

    ProviderStore *m_store;
    ConversationStore *m_chats;
    ChatViewModel *m_chat;
    ScrollController *m_scroll;
    std::chrono::milliseconds m_focusDelay{100};
    std::function<bool(qint64 bytes)> m_largeSendQuestion;
    bool m_appeared = false;
    // The selected conversation's messages as the store last held them: another window's save
    // shows as a change of these.
    std::optional<QUuid> m_seenID;
    QList<ChatMessage> m_seenMessages;
    bool m_waitingForKey = false; // a send waits for the provider's key to come from the keyring

    PaneCycler *m_panes = nullptr;
    QSplitter *m_splitter = nullptr;
    ConversationSidebar *m_sidebar = nullptr;
    DeletedChatBar *m_deletedBar = nullptr;
    QStackedWidget *m_detail = nullptr;
    QWidget *m_emptyState = nullptr;
    QLabel *m_emptyIcon = nullptr;
    QLabel *m_emptyText = nullptr;
    QWidget *m_chatArea = nullptr;
    ChatHeader *m_header = nullptr;
    QWidget *m_divider = nullptr;
    QWidget *m_transcript = nullptr;
    ComposerRow *m_composerRow = nullptr;
    FindBar *m_findBar = nullptr;
    TranscriptFind *m_find = nullptr;
};
