#include "ui/contentview.h"

#include "chat/chatviewmodel.h"
#include "storage/conversationexporter.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "transport/modelsfetch.h"
#include "ui/composerfield.h"
#include "ui/conversationdelegate.h"
#include "ui/conversationlistmodel.h"
#include "ui/qtfiledialogs.h"
#include "ui/scrollcontroller.h"
#include "ui/theme.h"
#include "ui/transcriptview.h"

#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

constexpr int sidebarMinimumWidth = 200;
constexpr int sidebarIdealWidth = 240;
constexpr int sidebarMaximumWidth = 320;
constexpr int headerIconSize = 16;

QString noModelsText()
{
    return QStringLiteral("No models loaded — tap the refresh button");
}

QToolButton *iconButton(QLatin1StringView symbol, const QString &help, const char *objectName, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(QLatin1StringView(objectName));
    button->setIcon(Theme::symbolIcon(symbol));
    button->setIconSize(QSize(headerIconSize, headerIconSize));
    button->setAutoRaise(true);
    button->setToolTip(help);
    button->setAccessibleName(help);
    button->setFocusPolicy(Qt::StrongFocus);
    return button;
}

void setTextColour(QWidget *widget, const QColor &colour)
{
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, colour);
    widget->setPalette(palette);
}

// Menu texts treat "&" as a mnemonic marker; model names are shown as they are.
QString menuText(QString text)
{
    return text.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

} // namespace

ContentView::ContentView(ProviderStore *store, ConversationStore *chats, QWidget *parent)
    : QWidget(parent)
    , m_store(store)
    , m_chats(chats)
    , m_chat(new ChatViewModel(this))
    , m_scroll(new ScrollController(this))
{
    m_listModel = new ConversationListModel(chats, this);

    m_splitter = new QSplitter(Qt::Horizontal, this);
    m_splitter->setChildrenCollapsible(false);
    m_splitter->addWidget(buildSidebar());
    m_detail = new QStackedWidget(m_splitter);
    m_emptyState = buildEmptyState();
    m_detail->addWidget(m_emptyState);
    m_splitter->addWidget(m_detail);
    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 1);
    m_splitter->setSizes({sidebarIdealWidth, 560});

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_splitter);

    // Direct: a send without a conversation creates one and sends at once; a queued reaction
    // would arrive after the turn started and stop it.
    connect(m_chats, &ConversationStore::selectedIDChanged, this, &ContentView::handleSelectionChanged,
            Qt::DirectConnection);
    connect(m_chats, &ConversationStore::conversationsChanged, this, &ContentView::syncListSelection,
            Qt::DirectConnection);
    connect(m_chats, &ConversationStore::conversationUpdated, this, &ContentView::handleConversationUpdated,
            Qt::DirectConnection);
    connect(m_store, &ProviderStore::providersChanged, this, &ContentView::handleProvidersChanged);
    connect(m_store, &ProviderStore::selectedIDChanged, this, &ContentView::handleProvidersChanged);

    syncListSelection();
    handleProvidersChanged();
    applyColours();
}

void ContentView::ensureChatArea()
{
    // Made when the first provider appears, not before: a first start shows only the empty state,
    // and the header, transcript and composer would cost its first paint for nothing.
    if (m_chatArea)
        return;
    m_chatArea = buildChatArea();
    m_detail->addWidget(m_chatArea);

    connect(m_chat, &ChatViewModel::messagesChanged, this, [this] {
        syncTokenTotal();
        m_exportButton->setEnabled(!m_chat->messages().isEmpty());
    });
    connect(m_chat, &ChatViewModel::inputChanged, this, [this] {
        m_composer->setText(m_chat->input());
        syncComposerButtons();
    });
    connect(m_chat, &ChatViewModel::isStreamingChanged, this, &ContentView::syncComposerButtons);
    connect(m_composer, &ComposerField::textChanged, this, [this] { m_chat->setInput(m_composer->text()); });
    connect(m_composer, &ComposerField::submitted, this, &ContentView::send);

    setTabOrder(m_list, m_providerPicker);
    setTabOrder(m_providerPicker, m_modelButton);
    setTabOrder(m_modelButton, m_fetchButton);
    setTabOrder(m_fetchButton, m_exportButton);
    setTabOrder(m_exportButton, m_settingsButton);

    m_composer->setText(m_chat->input());
    syncTokenTotal();
    m_exportButton->setEnabled(!m_chat->messages().isEmpty());
    syncComposerButtons();
    applyColours();
}

ContentView::~ContentView()
{
    // The views below use the view model and the scroll controller up to their last moment, and
    // children go in the order they were made, which would take those two first.
    delete m_splitter;
}

QWidget *ContentView::buildSidebar()
{
    auto *sidebar = new QWidget;
    sidebar->setObjectName(QStringLiteral("sidebar"));
    sidebar->setMinimumWidth(sidebarMinimumWidth);
    sidebar->setMaximumWidth(sidebarMaximumWidth);

    auto *newChat = iconButton(QLatin1StringView("square.and.pencil"), QStringLiteral("New chat (Ctrl+N)"),
                               "newChatButton", sidebar);
    connect(newChat, &QToolButton::clicked, this, [this] { m_chats->newChat(m_store->selectedID()); });

    m_list = new QListView(sidebar);
    m_list->setObjectName(QStringLiteral("conversationList"));
    m_list->setAccessibleName(QStringLiteral("Conversations"));
    m_list->setModel(m_listModel);
    m_list->setItemDelegate(new ConversationDelegate(m_list));
    m_list->setUniformItemSizes(true);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this, &ContentView::handleListSelection);
    connect(m_list, &QListView::customContextMenuRequested, this, &ContentView::handleContextMenu);

    auto *toolbar = new QHBoxLayout;
    toolbar->setContentsMargins(8, 6, 8, 6);
    toolbar->addStretch();
    toolbar->addWidget(newChat);

    auto *layout = new QVBoxLayout(sidebar);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(toolbar);
    layout->addWidget(m_list);
    setTabOrder(newChat, m_list);
    return sidebar;
}

QWidget *ContentView::buildEmptyState()
{
    auto *page = new QWidget;
    page->setObjectName(QStringLiteral("emptyState"));

    m_emptyIcon = new QLabel(page);
    m_emptyIcon->setAlignment(Qt::AlignCenter);
    auto *title = new QLabel(QStringLiteral("No providers yet"), page);
    title->setFont(Theme::font(Theme::TextStyle::Headline));
    title->setAlignment(Qt::AlignCenter);
    m_emptyText = new QLabel(QStringLiteral("Add a provider and paste your API key to start chatting."), page);
    m_emptyText->setFont(Theme::font(Theme::TextStyle::Subheadline));
    m_emptyText->setAlignment(Qt::AlignCenter);
    m_emptyText->setWordWrap(true);
    auto *open = new QPushButton(QStringLiteral("Open Settings"), page);
    open->setObjectName(QStringLiteral("openSettingsButton"));
    open->setDefault(true);
    connect(open, &QPushButton::clicked, this, &ContentView::settingsRequested);

    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(12);
    layout->addStretch();
    layout->addWidget(m_emptyIcon);
    layout->addWidget(title);
    layout->addWidget(m_emptyText);
    layout->addWidget(open, 0, Qt::AlignHCenter);
    layout->addStretch();
    return page;
}

QWidget *ContentView::buildChatArea()
{
    auto *area = new QWidget;
    area->setObjectName(QStringLiteral("chatArea"));

    auto *divider = new QFrame(area);
    divider->setObjectName(QStringLiteral("headerDivider"));
    divider->setFrameShape(QFrame::HLine);
    divider->setFrameShadow(QFrame::Plain);
    divider->setFixedHeight(1);

    auto *transcript = new TranscriptView(m_chat, m_scroll, area);
    transcript->setObjectName(QStringLiteral("transcript"));
    m_transcript = transcript;

    auto *layout = new QVBoxLayout(area);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(buildHeader());
    layout->addWidget(divider);
    layout->addWidget(m_transcript, 1);
    layout->addWidget(buildComposer());
    return area;
}

QWidget *ContentView::buildHeader()
{
    auto *header = new QWidget;
    header->setObjectName(QStringLiteral("header"));

    m_providerPicker = new QComboBox(header);
    m_providerPicker->setObjectName(QStringLiteral("providerPicker"));
    m_providerPicker->setAccessibleName(QStringLiteral("Provider"));
    // Screen readers announce a combo box by its current text; the description says what it picks.
    m_providerPicker->setAccessibleDescription(QStringLiteral("Provider"));
    m_providerPicker->setToolTip(QStringLiteral("Provider"));
    m_providerPicker->setMaximumWidth(200);
    m_providerPicker->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    connect(m_providerPicker, &QComboBox::activated, this,
            [this](int index) { m_store->setSelectedID(m_providerPicker->itemData(index).toUuid()); });

    // A borderless button showing the model's name with a small chevron after it.
    m_modelButton = new QToolButton(header);
    m_modelButton->setObjectName(QStringLiteral("modelMenuButton"));
    m_modelButton->setAutoRaise(true);
    m_modelButton->setAccessibleDescription(QStringLiteral("Model"));
    m_modelButton->setFocusPolicy(Qt::StrongFocus);
    m_modelLabel = new QLabel(m_modelButton);
    m_modelLabel->setObjectName(QStringLiteral("modelLabel"));
    m_modelLabel->setFont(Theme::font(Theme::TextStyle::Caption));
    m_modelLabel->setTextFormat(Qt::PlainText);
    m_modelChevron = new QLabel(m_modelButton);
    for (QLabel *part : {m_modelLabel, m_modelChevron})
        part->setAttribute(Qt::WA_TransparentForMouseEvents);
    auto *modelLayout = new QHBoxLayout(m_modelButton);
    modelLayout->setContentsMargins(4, 2, 4, 2);
    modelLayout->setSpacing(4);
    modelLayout->addWidget(m_modelLabel);
    modelLayout->addWidget(m_modelChevron);
    m_modelMenu = new QMenu(this);
    m_modelMenu->setObjectName(QStringLiteral("modelMenu"));
    connect(m_modelButton, &QToolButton::clicked, this, &ContentView::showModelMenu);

    m_fetchButton = iconButton(QLatin1StringView("arrow.clockwise"), QStringLiteral("Fetch model list from provider"),
                               "fetchModelsButton", header);
    m_fetchButton->setIconSize(QSize(10, 10));
    connect(m_fetchButton, &QToolButton::clicked, this, &ContentView::fetchModels);
    m_fetchProgress = new QProgressBar(header);
    m_fetchProgress->setObjectName(QStringLiteral("fetchProgress"));
    m_fetchProgress->setAccessibleName(QStringLiteral("Fetching models"));
    m_fetchProgress->setRange(0, 0);
    m_fetchProgress->setTextVisible(false);
    m_fetchProgress->setFixedSize(16, 6);
    m_fetchProgress->hide();

    m_tokenTotal = new QLabel(header);
    m_tokenTotal->setObjectName(QStringLiteral("tokenTotal"));
    m_tokenTotal->setFont(Theme::font(Theme::TextStyle::Caption));

    m_exportButton = iconButton(QLatin1StringView("square.and.arrow.up"),
                                QStringLiteral("Export conversation as Markdown"), "exportButton", header);
    connect(m_exportButton, &QToolButton::clicked, this, &ContentView::exportCurrent);
    m_settingsButton =
        iconButton(QLatin1StringView("gearshape"), QStringLiteral("Settings (Ctrl+,)"), "settingsButton", header);
    connect(m_settingsButton, &QToolButton::clicked, this, &ContentView::settingsRequested);

    auto *modelRow = new QHBoxLayout;
    modelRow->setSpacing(4);
    modelRow->addWidget(m_modelButton);
    modelRow->addWidget(m_fetchButton);
    modelRow->addWidget(m_fetchProgress);

    auto *layout = new QHBoxLayout(header);
    layout->setContentsMargins(12, 8, 12, 8);
    layout->setSpacing(8);
    layout->addWidget(m_providerPicker);
    layout->addLayout(modelRow);
    layout->addWidget(m_tokenTotal);
    layout->addStretch();
    layout->addWidget(m_exportButton);
    layout->addWidget(m_settingsButton);
    return header;
}

QWidget *ContentView::buildComposer()
{
    auto *row = new QWidget;
    row->setObjectName(QStringLiteral("composerRow"));
    m_composer = new ComposerField(row);

    const int sendSize = QFontMetrics(Theme::font(Theme::TextStyle::Title2)).height();
    m_sendButton = iconButton(QLatin1StringView("arrow.up.circle.fill"), QStringLiteral("Send"), "sendButton", row);
    m_sendButton->setIcon(Theme::symbolIcon(QLatin1StringView("arrow.up.circle.fill"), Theme::Color::Accent));
    m_sendButton->setIconSize(QSize(sendSize, sendSize));
    connect(m_sendButton, &QToolButton::clicked, this, &ContentView::send);

    m_stopButton = iconButton(QLatin1StringView("stop.fill"), QStringLiteral("Stop"), "stopButton", row);
    m_stopButton->setIcon(Theme::symbolIcon(QLatin1StringView("stop.fill"), Theme::Color::Primary));
    m_stopButton->setAutoRaise(false);
    connect(m_stopButton, &QToolButton::clicked, m_chat, &ChatViewModel::stop);

    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(12, 8, 12, 12);
    layout->setSpacing(8);
    layout->addWidget(m_composer, 1);
    layout->addWidget(m_sendButton);
    layout->addWidget(m_stopButton);
    return row;
}

void ContentView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_appeared)
        return;
    m_appeared = true;
    m_chat->setStore(m_chats);
    showConversation(m_chats->selected());
    m_chat->setOnStreamEnd([scroll = QPointer<ScrollController>(m_scroll)] {
        if (scroll)
            scroll->streamEnded();
    });
    if (m_chatArea && m_detail->currentWidget() == m_chatArea)
        m_composer->setFocus(Qt::OtherFocusReason);
}

void ContentView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
}

void ContentView::send()
{
    if (!m_chats->selectedID()) {
        // Selecting the new conversation has already shown it here (the direct reaction above);
        // showing it again makes sure the turn goes into it even if no window reacted.
        showConversation(m_chats->newChat(m_store->selectedID()));
    }
    m_scroll->messageSent();
    m_chat->send(m_store->selected());
}

void ContentView::selectModel(const QString &name)
{
    std::optional<Provider> provider = m_store->selected();
    if (!provider)
        return;
    provider->model = name;
    m_store->update(*provider);
}

void ContentView::fetchModels()
{
    const std::optional<Provider> provider = m_store->selected();
    if (!provider)
        return;
    m_fetchingModels = true;
    m_chat->setErrorText(std::nullopt);
    syncFetchButton();
    ModelsFetch *fetch = m_modelsService.fetchModels(*provider, this);
    connect(fetch, &ModelsFetch::finished, this, [this, id = provider->id](const ModelsFetch::Result &result) {
        if (const auto *models = std::get_if<QStringList>(&result))
            handleFetchFinished(id, models, {});
        else
            handleFetchFinished(id, nullptr, errorDescription(std::get<ServiceError>(result)));
    });
}

void ContentView::handleFetchFinished(const QUuid &providerID, const QStringList *models, const QString &error)
{
    if (models) {
        m_fetchedModels.insert(providerID, *models);
        // The user may have removed or edited the provider meanwhile: only its list is replaced.
        for (const Provider &provider : m_store->providers()) {
            if (provider.id == providerID) {
                Provider updated = provider;
                updated.cachedModels = *models;
                m_store->update(updated);
                break;
            }
        }
    } else {
        m_chat->setErrorText(error);
    }
    m_fetchingModels = false;
    syncFetchButton();
    syncModelMenu();
}

void ContentView::exportCurrent()
{
    const std::optional<QUuid> id = m_chats->selectedID();
    if (!id)
        return;
    const QList<Conversation> &all = m_chats->conversations();
    const auto it = std::find_if(all.begin(), all.end(), [&](const Conversation &c) { return c.id == *id; });
    if (it == all.end())
        return;
    // The transcript as shown, with a reply that is still streaming; the record stays as it is.
    Conversation shown = *it;
    shown.messages = m_chat->messages();
    const std::optional<Provider> provider = m_store->selected();
    if (!m_dialogs) {
        m_ownDialogs = std::make_unique<QtFileDialogs>(window());
        m_dialogs = m_ownDialogs.get();
    }
    const std::optional<QString> failure =
        ConversationExporter::exportTranscript(shown, provider ? std::optional(provider->name) : std::nullopt,
                                               provider ? std::optional(provider->model) : std::nullopt, *m_dialogs);
    if (failure)
        m_chat->setErrorText(*failure);
}

QStringList ContentView::modelList() const
{
    const std::optional<Provider> provider = m_store->selected();
    if (!provider)
        return {};
    const auto fetched = m_fetchedModels.constFind(provider->id);
    return fetched != m_fetchedModels.cend() ? *fetched : provider->cachedModels;
}

std::optional<qint64> ContentView::conversationTokenTotal(const QList<ChatMessage> &messages)
{
    qint64 sum = 0;
    for (const ChatMessage &message : messages) {
        if (const std::optional<qint64> count = displayedTokenCount(message.usage))
            sum = saturatingAdd(sum, *count);
    }
    if (sum > 0)
        return sum;
    return std::nullopt;
}

void ContentView::setFileDialogs(FileDialogs *dialogs)
{
    m_dialogs = dialogs;
    if (!dialogs)
        m_ownDialogs.reset();
}

void ContentView::handleSelectionChanged()
{
    syncListSelection();
    const qint64 token = m_scroll->beginContentChange();
    showConversation(m_chats->selected());
    m_scroll->conversationSwitched(token);
    QTimer::singleShot(m_focusDelay, this, [this] {
        if (m_composer)
            m_composer->setFocus(Qt::OtherFocusReason);
    });
}

void ContentView::handleConversationUpdated(const QUuid &id)
{
    if (id != m_seenID)
        return;
    const std::optional<Conversation> selected = m_chats->selected();
    if (!selected || selected->id != id || selected->messages == m_seenMessages)
        return;
    m_seenMessages = selected->messages;
    // Our own saves leave the store holding what we show; anything else is another window's turn,
    // shown here unless a reply of ours is streaming (its end saves over the record anyway).
    if (m_chat->isStreaming() || selected->messages == m_chat->messages())
        return;
    const qint64 token = m_scroll->beginContentChange();
    m_chat->activate(selected);
    m_scroll->conversationSwitched(token);
}

void ContentView::showConversation(const std::optional<Conversation> &conversation)
{
    m_chat->activate(conversation);
    m_seenID = conversation ? std::optional(conversation->id) : std::nullopt;
    m_seenMessages = conversation ? conversation->messages.list() : QList<ChatMessage>();
}

void ContentView::handleProvidersChanged()
{
    if (m_store->providers().isEmpty()) {
        m_detail->setCurrentWidget(m_emptyState);
    } else {
        ensureChatArea();
        m_detail->setCurrentWidget(m_chatArea);
    }
    if (!m_chatArea)
        return;
    syncProviderPicker();
    syncModelMenu();
    syncFetchButton();
}

void ContentView::handleListSelection()
{
    if (m_syncingList)
        return;
    const QModelIndexList rows = m_list->selectionModel()->selectedRows();
    if (rows.size() != 1) {
        // The list never shows less than the store's selection.
        syncListSelection();
        return;
    }
    m_chats->setSelectedID(rows.first().data(ConversationListModel::IdRole).toUuid());
}

void ContentView::handleContextMenu(const QPoint &pos)
{
    const QModelIndex index = m_list->indexAt(pos);
    if (!index.isValid())
        return;
    const QUuid id = index.data(ConversationListModel::IdRole).toUuid();
    const QList<Conversation> &all = m_chats->conversations();
    const auto it = std::find_if(all.begin(), all.end(), [&](const Conversation &c) { return c.id == id; });
    if (it == all.end())
        return;
    const Conversation conversation = *it;

    auto *menu = new QMenu(this);
    menu->setObjectName(QStringLiteral("conversationMenu"));
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->addAction(Theme::symbolIcon(QLatin1StringView("pencil")), QStringLiteral("Rename"), this,
                    [this, conversation] { openRenameDialog(conversation); });
    menu->addAction(Theme::symbolIcon(QLatin1StringView("trash")), QStringLiteral("Delete"), this,
                    [this, conversation] { m_chats->deleteConversation(conversation); });
    menu->popup(m_list->viewport()->mapToGlobal(pos));
}

void ContentView::openRenameDialog(const Conversation &conversation)
{
    m_renameTarget = conversation;

    auto *dialog = new QDialog(this);
    dialog->setObjectName(QStringLiteral("renameDialog"));
    dialog->setWindowTitle(QStringLiteral("Rename chat"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setMinimumWidth(320);

    auto *title = new QLabel(QStringLiteral("Rename chat"), dialog);
    title->setFont(Theme::font(Theme::TextStyle::Headline));
    auto *field = new QLineEdit(conversation.title, dialog);
    field->setObjectName(QStringLiteral("renameField"));
    field->setPlaceholderText(QStringLiteral("Title"));
    field->setAccessibleName(QStringLiteral("Title"));
    field->selectAll();
    auto *buttons = new QDialogButtonBox(dialog);
    buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    QPushButton *rename = buttons->addButton(QStringLiteral("Rename"), QDialogButtonBox::AcceptRole);
    rename->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);

    auto *layout = new QVBoxLayout(dialog);
    layout->setSpacing(12);
    layout->addWidget(title);
    layout->addWidget(field);
    layout->addWidget(buttons);

    connect(dialog, &QDialog::accepted, this, [this, field] {
        if (m_renameTarget)
            m_chats->rename(m_renameTarget->id, field->text());
    });
    connect(dialog, &QDialog::finished, this, [this] { m_renameTarget.reset(); });
    dialog->open();
    field->setFocus();
}

void ContentView::showModelMenu()
{
    m_modelMenu->clear();
    const std::optional<Provider> provider = m_store->selected();
    const QStringList models = modelList();
    if (models.isEmpty()) {
        m_modelMenu->addAction(noModelsText())->setEnabled(false);
    } else {
        for (const QString &name : models) {
            QAction *action = m_modelMenu->addAction(menuText(name), this, [this, name] { selectModel(name); });
            if (provider && name == provider->model)
                action->setIcon(Theme::symbolIcon(QLatin1StringView("checkmark"), Theme::Color::Primary));
        }
    }
    m_modelMenu->popup(m_modelButton->mapToGlobal(QPoint(0, m_modelButton->height())));
}

void ContentView::syncListSelection()
{
    m_syncingList = true;
    const int row = m_listModel->rowOf(m_chats->selectedID());
    if (row >= 0) {
        const QModelIndex index = m_listModel->index(row);
        m_list->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
        m_list->scrollTo(index);
    } else {
        m_list->selectionModel()->clear();
    }
    m_syncingList = false;
}

void ContentView::syncProviderPicker()
{
    if (!m_chatArea)
        return;
    const QSignalBlocker blocker(m_providerPicker);
    m_providerPicker->clear();
    int current = -1;
    const std::optional<QUuid> selected = m_store->selectedID();
    for (const Provider &provider : m_store->providers()) {
        if (current < 0 && selected == provider.id)
            current = m_providerPicker->count();
        m_providerPicker->addItem(provider.name, provider.id);
    }
    m_providerPicker->setCurrentIndex(current);
}

void ContentView::syncModelMenu()
{
    if (!m_chatArea)
        return;
    const std::optional<Provider> provider = m_store->selected();
    const QString label = provider && !provider->model.isEmpty() ? provider->model : QStringLiteral("Choose model");
    m_modelLabel->setText(label);
    m_modelButton->setAccessibleName(label);
    m_modelButton->setFixedSize(m_modelButton->layout()->sizeHint());
    m_modelButton->setEnabled(provider.has_value());
}

void ContentView::syncFetchButton()
{
    if (!m_chatArea)
        return;
    const bool hasProvider = m_store->selected().has_value();
    m_fetchButton->setEnabled(hasProvider && !m_fetchingModels);
    m_fetchButton->setVisible(!m_fetchingModels);
    m_fetchProgress->setVisible(m_fetchingModels);
}

void ContentView::syncTokenTotal()
{
    if (!m_chatArea)
        return;
    const std::optional<qint64> total = conversationTokenTotal(m_chat->messages());
    m_tokenTotal->setText(total ? QString::number(*total) + QStringLiteral(" tokens") : QString());
    m_tokenTotal->setVisible(total.has_value());
}

void ContentView::syncComposerButtons()
{
    if (!m_chatArea)
        return;
    const bool streaming = m_chat->isStreaming();
    m_sendButton->setVisible(!streaming);
    m_stopButton->setVisible(streaming);
    m_sendButton->setEnabled(!m_chat->input().trimmed().isEmpty());
}

void ContentView::applyColours()
{
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    setTextColour(m_emptyText, secondary);
    if (m_chatArea) {
        setTextColour(m_tokenTotal, secondary);
        if (auto *divider = m_chatArea->findChild<QFrame *>(QStringLiteral("headerDivider")))
            setTextColour(divider, Theme::withOpacity(secondary, 0.3));
        m_modelChevron->setPixmap(Theme::symbolIcon(QLatin1StringView("chevron.down"), secondary).pixmap(8, 8));
    }
    m_emptyIcon->setPixmap(Theme::symbolIcon(QLatin1StringView("key.horizontal"), secondary).pixmap(40, 40));

    // The prominent button is filled with the accent colour.
    if (auto *open = m_emptyState->findChild<QPushButton *>(QStringLiteral("openSettingsButton"))) {
        QPalette buttonPalette = open->palette();
        buttonPalette.setColor(QPalette::Button, palette().color(QPalette::Highlight));
        buttonPalette.setColor(QPalette::ButtonText, palette().color(QPalette::HighlightedText));
        open->setPalette(buttonPalette);
    }
}
