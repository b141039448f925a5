#include "ui/chatheader.h"

#include "chat/chatviewmodel.h"
#include "storage/conversationexporter.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "transport/modelsfetch.h"
#include "ui/qtfiledialogs.h"
#include "ui/theme.h"

#include <QComboBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QProgressBar>
#include <QStandardItemModel>
#include <QToolButton>

using namespace Qt::StringLiterals;

namespace {

constexpr int pickerMaximumWidth = 200;

QString noModelsText()
{
    return u"No models loaded — tap the refresh button"_s;
}

// Menu texts treat "&" as a mnemonic marker; model names are shown as they are.
QString menuText(QString text)
{
    return text.replace(u'&', u"&&"_s);
}

} // namespace

ChatHeader::ChatHeader(ProviderStore *providers, ConversationStore *chats, ChatViewModel *chat, QWidget *parent)
    : QWidget(parent)
    , m_providers(providers)
    , m_chats(chats)
    , m_chat(chat)
{
    setObjectName(u"header"_s);

    m_providerPicker = new QComboBox(this);
    m_providerPicker->setObjectName(u"providerPicker"_s);
    m_providerPicker->setAccessibleName(u"Provider"_s);
    // Screen readers announce a combo box by its current text; the description says what it picks.
    m_providerPicker->setAccessibleDescription(u"Provider"_s);
    m_providerPicker->setToolTip(u"Provider"_s);
    m_providerPicker->setMaximumWidth(pickerMaximumWidth);
    m_providerPicker->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    connect(m_providerPicker, &QComboBox::activated, this,
            [this](int index) { m_providers->setSelectedID(m_providerPicker->itemData(index).toUuid()); });

    // A borderless button showing the model's name with a small chevron after it.
    m_modelButton = new QToolButton(this);
    m_modelButton->setObjectName(u"modelMenuButton"_s);
    m_modelButton->setAutoRaise(true);
    m_modelButton->setAccessibleDescription(u"Model"_s);
    m_modelButton->setFocusPolicy(Qt::StrongFocus);
    m_modelLabel = new QLabel(m_modelButton);
    m_modelLabel->setObjectName(u"modelLabel"_s);
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
    m_modelMenu->setObjectName(u"modelMenu"_s);
    connect(m_modelButton, &QToolButton::clicked, this, &ChatHeader::showModelMenu);

    m_fetchButton = Theme::symbolButton(QLatin1StringView("arrow.clockwise"), u"Fetch model list from provider"_s,
                                        u"fetchModelsButton"_s, this);
    m_fetchButton->setIconSize(QSize(10, 10));
    connect(m_fetchButton, &QToolButton::clicked, this, &ChatHeader::fetchModels);
    m_fetchProgress = new QProgressBar(this);
    m_fetchProgress->setObjectName(u"fetchProgress"_s);
    m_fetchProgress->setAccessibleName(u"Fetching models"_s);
    m_fetchProgress->setRange(0, 0);
    m_fetchProgress->setTextVisible(false);
    m_fetchProgress->setFixedSize(16, 6);
    m_fetchProgress->hide();

    m_tokenTotal = new QLabel(this);
    m_tokenTotal->setObjectName(u"tokenTotal"_s);
    m_tokenTotal->setFont(Theme::font(Theme::TextStyle::Caption));

    m_systemPromptButton = new QToolButton(this);
    m_systemPromptButton->setObjectName(u"systemPromptButton"_s);
    m_systemPromptButton->setText(u"System Prompt…"_s);
    m_systemPromptButton->setToolTip(u"Standing instructions for this chat"_s);
    m_systemPromptButton->setAccessibleName(u"System Prompt…"_s);
    m_systemPromptButton->setAutoRaise(true);
    m_systemPromptButton->setFocusPolicy(Qt::StrongFocus);
    connect(m_systemPromptButton, &QToolButton::clicked, this, [this] {
        if (const std::optional<QUuid> id = m_chats->selectedID())
            emit systemPromptRequested(*id);
    });

    m_exportButton = Theme::symbolButton(QLatin1StringView("square.and.arrow.up"), u"Export conversation as Markdown"_s,
                                         u"exportButton"_s, this);
    connect(m_exportButton, &QToolButton::clicked, this, &ChatHeader::exportCurrent);
    m_settingsButton =
        Theme::symbolButton(QLatin1StringView("gearshape"), u"Settings (Ctrl+,)"_s, u"settingsButton"_s, this);
    connect(m_settingsButton, &QToolButton::clicked, this, &ChatHeader::settingsRequested);

    auto *modelRow = new QHBoxLayout;
    modelRow->setSpacing(4);
    modelRow->addWidget(m_modelButton);
    modelRow->addWidget(m_fetchButton);
    modelRow->addWidget(m_fetchProgress);

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 8, 12, 8);
    layout->setSpacing(8);
    layout->addWidget(m_providerPicker);
    layout->addLayout(modelRow);
    layout->addWidget(m_tokenTotal);
    layout->addStretch();
    layout->addWidget(m_systemPromptButton);
    layout->addWidget(m_exportButton);
    layout->addWidget(m_settingsButton);

    setTabOrder(m_providerPicker, m_modelButton);
    setTabOrder(m_modelButton, m_fetchButton);
    setTabOrder(m_fetchButton, m_systemPromptButton);
    setTabOrder(m_systemPromptButton, m_exportButton);
    setTabOrder(m_exportButton, m_settingsButton);

    connect(m_providers, &ProviderStore::providersChanged, this, &ChatHeader::syncProviders);
    connect(m_providers, &ProviderStore::selectedIDChanged, this, &ChatHeader::syncProviders);
    connect(m_chat, &ChatViewModel::messagesChanged, this, &ChatHeader::syncMessages);
    connect(m_chats, &ConversationStore::selectedIDChanged, this,
            [this] { m_systemPromptButton->setEnabled(m_chats->selectedID().has_value()); });
    m_systemPromptButton->setEnabled(m_chats->selectedID().has_value());

    syncProviders();
    syncMessages();
    applyColours();
}

ChatHeader::~ChatHeader() = default;

QWidget *ChatHeader::firstInFocusChain() const
{
    return m_providerPicker;
}

QWidget *ChatHeader::lastInFocusChain() const
{
    return m_settingsButton;
}

void ChatHeader::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
}

void ChatHeader::selectModel(const QString &name)
{
    std::optional<Provider> provider = m_providers->selected();
    if (!provider)
        return;
    provider->model = name;
    m_providers->update(*provider);
}

void ChatHeader::fetchModels()
{
    const std::optional<Provider> provider = m_providers->selected();
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

void ChatHeader::handleFetchFinished(const QUuid &providerID, const QStringList *models, const QString &error)
{
    if (models) {
        m_fetchedModels.insert(providerID, *models);
        // The user may have removed or edited the provider meanwhile: only its list is replaced.
        if (const Provider *stored = m_providers->find(providerID)) {
            Provider updated = *stored;
            updated.cachedModels = *models;
            m_providers->update(updated);
        }
    } else {
        m_chat->setErrorText(error);
    }
    m_fetchingModels = false;
    syncFetchButton();
    syncModelMenu();
}

void ChatHeader::exportCurrent()
{
    const std::optional<QUuid> id = m_chats->selectedID();
    const Conversation *stored = id ? m_chats->find(*id) : nullptr;
    if (!stored)
        return;
    // The transcript as shown, with a reply that is still streaming; the record stays as it is.
    Conversation shown = *stored;
    shown.messages = m_chat->messages();
    const std::optional<Provider> provider = m_providers->selected();
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

QStringList ChatHeader::modelList() const
{
    const std::optional<Provider> provider = m_providers->selected();
    if (!provider)
        return {};
    const auto fetched = m_fetchedModels.constFind(provider->id);
    return fetched != m_fetchedModels.cend() ? *fetched : provider->cachedModels;
}

std::optional<qint64> ChatHeader::conversationTokenTotal(const QList<ChatMessage> &messages)
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

void ChatHeader::setFileDialogs(FileDialogs *dialogs)
{
    m_dialogs = dialogs;
    if (!dialogs)
        m_ownDialogs.reset();
}

void ChatHeader::showModelMenu()
{
    m_modelMenu->clear();
    const std::optional<Provider> provider = m_providers->selected();
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

void ChatHeader::syncProviders()
{
    syncProviderPicker();
    syncModelMenu();
    syncFetchButton();
}

void ChatHeader::syncProviderPicker()
{
    // The rows are made first and handed over at once: added one by one to the shown list, each
    // announced on its own, thousands of providers would hold the window for a long moment.
    const QSignalBlocker blocker(m_providerPicker);
    int current = -1;
    const std::optional<QUuid> selected = m_providers->selectedID();
    const QList<Provider> &providers = m_providers->providers();
    QList<QStandardItem *> rows;
    rows.reserve(providers.size());
    for (const Provider &provider : providers) {
        if (current < 0 && selected == provider.id)
            current = int(rows.size());
        auto *row = new QStandardItem(provider.name);
        row->setData(provider.id, Qt::UserRole);
        rows.append(row);
    }
    auto *model = new QStandardItemModel(m_providerPicker);
    model->appendColumn(rows);
    // Fitting the picker to its widest name measures every name: with a long list it simply takes
    // its widest size.
    constexpr qsizetype measuredNames = 200;
    if (rows.size() > measuredNames) {
        m_providerPicker->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
        m_providerPicker->setMinimumContentsLength(pickerMaximumWidth / qMax(1, fontMetrics().averageCharWidth()));
    } else {
        m_providerPicker->setSizeAdjustPolicy(QComboBox::AdjustToContents);
        m_providerPicker->setMinimumContentsLength(0);
    }
    m_providerPicker->setModel(model); // the previous list was the picker's own: it goes
    m_providerPicker->setCurrentIndex(current);
}

void ChatHeader::syncModelMenu()
{
    const std::optional<Provider> provider = m_providers->selected();
    const QString label = provider && !provider->model.isEmpty() ? provider->model : u"Choose model"_s;
    m_modelLabel->setText(label);
    m_modelButton->setAccessibleName(label);
    m_modelButton->setFixedSize(m_modelButton->layout()->sizeHint());
    m_modelButton->setEnabled(provider.has_value());
}

void ChatHeader::syncFetchButton()
{
    const bool hasProvider = m_providers->selected().has_value();
    m_fetchButton->setEnabled(hasProvider && !m_fetchingModels);
    m_fetchButton->setVisible(!m_fetchingModels);
    m_fetchProgress->setVisible(m_fetchingModels);
}

void ChatHeader::syncMessages()
{
    const std::optional<qint64> total = conversationTokenTotal(m_chat->messages());
    m_tokenTotal->setText(total ? QString::number(*total) + u" tokens"_s : QString());
    m_tokenTotal->setVisible(total.has_value());
    m_exportButton->setEnabled(!m_chat->messages().isEmpty());
}

void ChatHeader::applyColours()
{
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    Theme::setTextColour(m_tokenTotal, secondary);
    m_modelChevron->setPixmap(Theme::symbolIcon(QLatin1StringView("chevron.down"), secondary).pixmap(8, 8));
}
