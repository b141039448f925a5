#pragma once

#include "model/chatmessage.h"
#include "transport/modelsservice.h"

#include <QHash>
#include <QList>
#include <QStringList>
#include <QUuid>
#include <QWidget>

#include <memory>
#include <optional>

class ChatViewModel;
class ConversationStore;
class FileDialogs;
class ProviderStore;
class QComboBox;
class QLabel;
class QMenu;
class QProgressBar;
class QToolButton;

// The bar above the transcript: the provider picker, the model menu with its refresh button, the
// conversation's token total, and the system prompt, export and settings buttons.
//
// Reads and writes the two stores and shows the window's view model; all three must outlive it.
// A failed model fetch or export shows as the view model's error line.
class ChatHeader final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ChatHeader)

public:
    ChatHeader(ProviderStore *providers, ConversationStore *chats, ChatViewModel *chat, QWidget *parent = nullptr);
    ~ChatHeader() override;

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

    // The total shown: each reply's displayed count summed (saturating); nothing unless the sum is
    // above 0.
    static std::optional<qint64> conversationTokenTotal(const QList<ChatMessage> &messages);

    // The dialogs export runs. Not owned; nullptr restores the window's own Qt dialogs.
    void setFileDialogs(FileDialogs *dialogs);
    // The model-list service (tests shorten its time-out).
    void setModelsService(const ModelsService &service) { m_modelsService = service; }

    QWidget *firstInFocusChain() const;
    QWidget *lastInFocusChain() const;

signals:
    // Emitted when the user asks for the settings window (the gear button).
    void settingsRequested();
    // Emitted when the user asks to edit the selected conversation's system prompt.
    void systemPromptRequested(const QUuid &conversationID);

protected:
    void changeEvent(QEvent *event) override;

private:
    void handleFetchFinished(const QUuid &providerID, const QStringList *models, const QString &error);
    void showModelMenu();
    void syncProviders();
    void syncProviderPicker();
    void syncModelMenu();
    void syncFetchButton();
    void syncMessages();
    void applyColours();

    ProviderStore *m_providers;
    ConversationStore *m_chats;
    ChatViewModel *m_chat;
    QHash<QUuid, QStringList> m_fetchedModels;
    bool m_fetchingModels = false;
    ModelsService m_modelsService;
    std::unique_ptr<FileDialogs> m_ownDialogs;
    FileDialogs *m_dialogs = nullptr;

    QComboBox *m_providerPicker;
    QToolButton *m_modelButton;
    QLabel *m_modelLabel;
    QLabel *m_modelChevron;
    QMenu *m_modelMenu;
    QToolButton *m_fetchButton;
    QProgressBar *m_fetchProgress;
    QLabel *m_tokenTotal;
    QToolButton *m_systemPromptButton;
    QToolButton *m_exportButton;
    QToolButton *m_settingsButton;
};
