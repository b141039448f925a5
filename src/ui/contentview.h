#pragma once

#include "model/conversation.h"
#include "transport/modelsservice.h"

#include <QHash>
#include <QList>
#include <QStringList>
#include <QUuid>
#include <QWidget>

#include <chrono>
#include <memory>
#include <optional>

class ChatViewModel;
class ComposerField;
class ConversationListModel;
class ConversationStore;
class FileDialogs;
class ProviderStore;
class QComboBox;
class QLabel;
class QListView;
class QMenu;
class QProgressBar;
class QSplitter;
class QStackedWidget;
class QToolButton;
class ScrollController;

// The content of a main window: the conversation list on the left and, on the right, either the
// invitation to add a provider (while there is none) or the chat: a header with the provider and
// model choices, the transcript and the composer.
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

    // Sends the composer's text, first creating and selecting a conversation when none is
    // selected. Runs on Return whatever the text; the view model ignores a blank one.
    void send();
    // Stores the model name in the selected provider, for every window.
    void selectModel(const QString &name);
    // Asks the selected provider for its models; a failure shows as the transcript's error line.
    void fetchModels();
    // Writes the conversation as shown, through the file dialogs, as a Markdown transcript.
    void exportCurrent();

    // The models the menu offers for the selected provider: this window's fetched list when it
    // has one (even an empty one), else the provider's cached list.
    QStringList modelList() const;
    bool isFetchingModels() const { return m_fetchingModels; }

    // The header's total: each reply's displayed count summed (saturating); nothing unless the
    // sum is above 0.
    static std::optional<qint64> conversationTokenTotal(const QList<ChatMessage> &messages);

    // The dialogs export runs. Not owned; nullptr restores the window's own Qt dialogs.
    void setFileDialogs(FileDialogs *dialogs);
    // The model-list service (tests shorten its time-out).
    void setModelsService(const ModelsService &service) { m_modelsService = service; }
    // How long after a conversation switch the composer takes the focus (0.1 s shipped).
    void setFocusDelay(std::chrono::milliseconds delay) { m_focusDelay = delay; }

signals:
    // Emitted when the user asks for the settings window ("Open Settings", the header's button).
    void settingsRequested();

protected:
    void showEvent(QShowEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    QWidget *buildSidebar();
    QWidget *buildEmptyState();
    QWidget *buildChatArea();
    void ensureChatArea();
    QWidget *buildHeader();
    QWidget *buildComposer();

    void handleSelectionChanged();
    void handleConversationUpdated(const QUuid &id);
    void handleProvidersChanged();
    void handleListSelection();
    void handleContextMenu(const QPoint &pos);
    void handleFetchFinished(const QUuid &providerID, const QStringList *models, const QString &error);
    void openRenameDialog(const Conversation &conversation);
    void showConversation(const std::optional<Conversation> &conversation);
    void showModelMenu();

    void syncListSelection();
    void syncProviderPicker();
    void syncModelMenu();
    void syncFetchButton();
    void syncTokenTotal();
    void syncComposerButtons();
    void applyColours();

    ProviderStore *m_store;
    ConversationStore *m_chats;
    ChatViewModel *m_chat;
    ScrollController *m_scroll;
    std::optional<Conversation> m_renameTarget;
    QHash<QUuid, QStringList> m_fetchedModels;
    bool m_fetchingModels = false;
    ModelsService m_modelsService;

    std::unique_ptr<FileDialogs> m_ownDialogs;
    FileDialogs *m_dialogs = nullptr;
    std::chrono::milliseconds m_focusDelay{100};
    bool m_appeared = false;
    bool m_syncingList = false;
    // The selected conversation's messages as the store last held them: another window's save
    // shows as a change of these.
    std::optional<QUuid> m_seenID;
    QList<ChatMessage> m_seenMessages;

    QSplitter *m_splitter = nullptr;
    ConversationListModel *m_listModel = nullptr;
    QListView *m_list = nullptr;
    QStackedWidget *m_detail = nullptr;
    QWidget *m_emptyState = nullptr;
    QWidget *m_chatArea = nullptr;
    QLabel *m_emptyIcon = nullptr;
    QLabel *m_emptyText = nullptr;
    QComboBox *m_providerPicker = nullptr;
    QToolButton *m_modelButton = nullptr;
    QLabel *m_modelLabel = nullptr;
    QLabel *m_modelChevron = nullptr;
    QMenu *m_modelMenu = nullptr;
    QToolButton *m_fetchButton = nullptr;
    QProgressBar *m_fetchProgress = nullptr;
    QLabel *m_tokenTotal = nullptr;
    QToolButton *m_exportButton = nullptr;
    QToolButton *m_settingsButton = nullptr;
    QWidget *m_transcript = nullptr;
    ComposerField *m_composer = nullptr;
    QToolButton *m_sendButton = nullptr;
    QToolButton *m_stopButton = nullptr;
};
