#include "ui/contentview.h"

#include "chat/chatviewmodel.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "ui/chatheader.h"
#include "ui/composereditor.h"
#include "ui/composerfield.h"
#include "ui/composerrow.h"
#include "ui/conversationsidebar.h"
#include "ui/deletedchatbar.h"
#include "ui/findbar.h"
#include "ui/panecycler.h"
#include "ui/scrollcontroller.h"
#include "ui/systempromptdialog.h"
#include "ui/theme.h"
#include "ui/transcriptfind.h"
#include "ui/transcriptview.h"

#include <QApplication>
#include <QEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QLocale>
#include <QMessageBox>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QShortcut>
#include <QSplitter>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

// A one-pixel rule in the text colour. Filled as a rectangle: a style's line of that width is
// plotted pixel by pixel, each a span of its own, and the engine shares so many spans out among
// threads.
class Divider final : public QWidget
{
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *) override { QPainter(this).fillRect(rect(), palette().windowText()); }
};

} // namespace

namespace {

// The size the text takes as UTF-8, without making the copy.
qint64 utf8Size(QStringView text)
{
    qint64 bytes = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text.at(i).unicode();
        if (c < 0x80)
            bytes += 1;
        else if (c < 0x800)
            bytes += 2;
        else if (QChar::isHighSurrogate(c) && i + 1 < text.size() && QChar::isLowSurrogate(text.at(i + 1).unicode())) {
            bytes += 4;
            ++i;
        } else
            bytes += 3;
    }
    return bytes;
}

bool askLargeSend(QWidget *parent, qint64 bytes)
{
    QMessageBox box(QMessageBox::Question, u"Send a long message?"_s,
                    u"This message is %1 long. Send it anyway?"_s.arg(
                        QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat)),
                    QMessageBox::NoButton, parent);
    box.setInformativeText(u"A message this long takes a while to send, and the provider may refuse it."_s);
    QPushButton *send = box.addButton(u"Send"_s, QMessageBox::AcceptRole);
    box.addButton(u"Cancel"_s, QMessageBox::RejectRole);
    box.setDefaultButton(send);
    box.exec();
    return box.clickedButton() == send;
}

} // namespace

ContentView::ContentView(ProviderStore *store, ConversationStore *chats, QWidget *parent)
    : QWidget(parent)
    , m_store(store)
    , m_chats(chats)
    , m_chat(new ChatViewModel(this))
    , m_scroll(new ScrollController(this))
{
    m_splitter = new QSplitter(Qt::Horizontal, this);
    m_splitter->setChildrenCollapsible(false);
    m_sidebar = new ConversationSidebar(store, chats, m_splitter);
    m_splitter->addWidget(m_sidebar);
    connect(m_sidebar, &ConversationSidebar::composerFocusRequested, this, &ContentView::focusComposer);
    connect(m_sidebar, &ConversationSidebar::systemPromptRequested, this, &ContentView::openSystemPromptDialog);
    connect(m_sidebar, &ConversationSidebar::resultChosen, this, &ContentView::openFindAt);

    // Window-wide, like the menu's shortcuts: they work from the composer, the list or the transcript.
    const auto shortcut = [this](const QKeySequence &keys, auto slot) {
        auto *s = new QShortcut(keys, this);
        s->setContext(Qt::WindowShortcut);
        connect(s, &QShortcut::activated, this, slot);
    };
    shortcut(QKeySequence::Find, &ContentView::openFind);
    shortcut(QKeySequence(Qt::Key_F3), [this] {
        if (!m_findBar || m_findBar->isHidden())
            return openFind();
        m_find->next();
        handleFindMoved();
    });
    shortcut(QKeySequence(Qt::SHIFT | Qt::Key_F3), [this] {
        if (!m_findBar || m_findBar->isHidden())
            return openFind();
        m_find->previous();
        handleFindMoved();
    });
    m_detail = new QStackedWidget(m_splitter);
    m_emptyState = buildEmptyState();
    m_detail->addWidget(m_emptyState);
    m_splitter->addWidget(m_detail);
    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 1);
    m_splitter->setSizes({ConversationSidebar::idealWidth, 560});

    m_deletedBar = new DeletedChatBar(chats, this);
    connect(m_sidebar, &ConversationSidebar::conversationDeleted, m_deletedBar, &DeletedChatBar::offer);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_deletedBar);
    layout->addWidget(m_splitter, 1);

    // Direct: a send without a conversation creates one and sends at once; a queued reaction
    // would arrive after the turn started and stop it.
    connect(m_chats, &ConversationStore::selectedIDChanged, this, &ContentView::handleSelectionChanged,
            Qt::DirectConnection);
    connect(m_chats, &ConversationStore::conversationUpdated, this, &ContentView::handleConversationUpdated,
            Qt::DirectConnection);
    connect(m_store, &ProviderStore::providersChanged, this, &ContentView::handleProvidersChanged);

    // F6 rings the conversation list, the transcript and the composer.
    m_panes = new PaneCycler(this, [this] {
        return QList<QWidget *>{m_sidebar->list(), m_transcript,
                                m_composerRow ? m_composerRow->composer()->editor() : nullptr};
    });

    handleProvidersChanged();
    applyColours();
}

ContentView::~ContentView()
{
    // A reply streaming here ends and is saved while the window is still whole; the save's notices
    // are for the other windows.
    disconnect(m_chats, nullptr, this, nullptr);
    m_chat->finishReply();
    // The views below use the view model and the scroll controller up to their last moment, and
    // children go in the order they were made, which would take those two first.
    delete m_splitter;
}

void ContentView::ensureChatArea()
{
    // Made when the first provider appears, not before: a first start shows only the empty state,
    // and the header, transcript and composer would cost its first paint for nothing.
    if (m_chatArea)
        return;
    m_chatArea = new QWidget;
    m_chatArea->setObjectName(u"chatArea"_s);

    m_header = new ChatHeader(m_store, m_chats, m_chat, m_chatArea);
    connect(m_header, &ChatHeader::settingsRequested, this, &ContentView::settingsRequested);
    connect(m_header, &ChatHeader::systemPromptRequested, this, &ContentView::openSystemPromptDialog);

    auto *divider = new Divider(m_chatArea);
    divider->setObjectName(u"headerDivider"_s);
    divider->setFixedHeight(1);
    m_divider = divider;

    auto *transcript = new TranscriptView(m_chat, m_scroll, m_chatArea);
    transcript->setObjectName(u"transcript"_s);
    m_transcript = transcript;

    m_findBar = new FindBar(m_chatArea);
    m_findBar->hide();
    m_find = new TranscriptFind(m_chat, transcript->area(), this);
    connect(m_findBar, &FindBar::textEdited, this, [this](const QString &text) {
        m_find->setQuery(text);
        handleFindMoved();
    });
    connect(m_findBar, &FindBar::nextRequested, this, [this] {
        m_find->next();
        handleFindMoved();
    });
    connect(m_findBar, &FindBar::previousRequested, this, [this] {
        m_find->previous();
        handleFindMoved();
    });
    connect(m_findBar, &FindBar::closeRequested, this, &ContentView::closeFind);
    connect(m_find, &TranscriptFind::resultsChanged, this,
            [this] { m_findBar->setStatus(m_find->statusText(), m_find->count() > 0); });
    connect(transcript->area(), &TranscriptArea::regenerateRequested, this, &ContentView::regenerate);
    connect(transcript->area(), &TranscriptArea::resendRequested, this, &ContentView::resend);
    auto *regenerate = new QShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R), m_chatArea);
    regenerate->setContext(Qt::WindowShortcut);
    connect(regenerate, &QShortcut::activated, this, &ContentView::regenerate);

    m_composerRow = new ComposerRow(m_chat, m_chatArea);
    connect(m_composerRow, &ComposerRow::sendRequested, this, &ContentView::send);

    auto *layout = new QVBoxLayout(m_chatArea);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_header);
    layout->addWidget(m_divider);
    layout->addWidget(m_transcript, 1);
    layout->addWidget(m_findBar);
    layout->addWidget(m_composerRow);
    m_detail->addWidget(m_chatArea);
    m_panes->returnOnEscape(m_transcript, m_composerRow->composer()->editor());

    setTabOrder(m_sidebar->lastInFocusChain(), m_header->firstInFocusChain());
    applyColours();
}

void ContentView::openSystemPromptDialog(const QUuid &conversationID)
{
    const Conversation *stored = m_chats->find(conversationID);
    if (!stored)
        return;
    // The transcript shown here may hold more than the store yet (a reply streaming).
    const QString prompt =
        m_chat->isShowing(conversationID) ? m_chat->systemPrompt() : ChatViewModel::systemPromptOf(stored->messages);
    auto *dialog = new SystemPromptDialog(stored->title, prompt, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    connect(dialog, &QDialog::accepted, this,
            [this, dialog, conversationID] { setSystemPrompt(conversationID, dialog->prompt()); });
    dialog->open();
}

void ContentView::setSystemPrompt(const QUuid &conversationID, const QString &text)
{
    if (m_chat->isShowing(conversationID)) {
        m_chat->setSystemPrompt(text);
        return;
    }
    if (const Conversation *stored = m_chats->find(conversationID)) {
        const QList<ChatMessage> changed = ChatViewModel::withSystemPrompt(stored->messages, text);
        if (changed != stored->messages.list())
            m_chats->updateMessages(conversationID, changed);
    }
}

QWidget *ContentView::buildEmptyState()
{
    auto *page = new QWidget;
    page->setObjectName(u"emptyState"_s);

    m_emptyIcon = new QLabel(page);
    m_emptyIcon->setAlignment(Qt::AlignCenter);
    auto *title = new QLabel(u"No providers yet"_s, page);
    title->setFont(Theme::font(Theme::TextStyle::Headline));
    title->setAlignment(Qt::AlignCenter);
    m_emptyText = new QLabel(u"Add a provider and paste your API key to start chatting."_s, page);
    m_emptyText->setFont(Theme::font(Theme::TextStyle::Subheadline));
    m_emptyText->setAlignment(Qt::AlignCenter);
    m_emptyText->setWordWrap(true);
    auto *open = new QPushButton(u"Open Settings"_s, page);
    open->setObjectName(u"openSettingsButton"_s);
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
        m_composerRow->composer()->setFocus(Qt::OtherFocusReason);
}

void ContentView::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
}

void ContentView::send()
{
    if (m_composerRow)
        m_composerRow->flushInput();
    const std::optional<Provider> provider = m_store->selected();
    if (provider && m_store->isKeyPending(provider->id)) {
        // The key is still on its way from the keyring: the turn goes out as soon as it is here.
        if (!std::exchange(m_waitingForKey, true)) {
            m_store->whenKeyReady(provider->id, this, [this] {
                m_waitingForKey = false;
                send();
            });
        }
        return;
    }
    const qint64 bytes = utf8Size(m_chat->input());
    if (bytes > largeMessageBytes && !m_chat->isStreaming()) {
        const bool send = m_largeSendQuestion ? m_largeSendQuestion(bytes) : askLargeSend(this, bytes);
        if (!send)
            return;
    }
    if (!m_chats->selectedID()) {
        // Selecting the new conversation has already shown it here (the direct reaction above);
        // showing it again makes sure the turn goes into it even if no window reacted.
        showConversation(m_chats->newChat(m_store->selectedID()));
    }
    m_scroll->messageSent();
    m_chat->send(m_store->selected());
}

void ContentView::regenerate()
{
    if (!m_chat->canRegenerate())
        return;
    m_scroll->messageSent();
    m_chat->regenerate(m_store->selected());
    keepFocus();
}

void ContentView::resend(qsizetype index, const QString &text)
{
    m_scroll->messageSent();
    m_chat->editAndResend(index, text, m_store->selected());
    keepFocus();
}

void ContentView::keepFocus()
{
    // The button or editor that asked went with the version it belonged to; the keyboard goes on
    // in the composer, as after a send, rather than nowhere.
    if (!QApplication::focusWidget() && isActiveWindow())
        focusComposer();
}

void ContentView::handleSelectionChanged()
{
    const qint64 token = m_scroll->beginContentChange();
    showConversation(m_chats->selected());
    m_scroll->conversationSwitched(token);
    // Walking the list with the arrow keys keeps the focus there; Return then moves it.
    if (!m_sidebar->isKeyboardSelecting())
        QTimer::singleShot(m_focusDelay, this, &ContentView::focusComposer);
}

void ContentView::openFind()
{
    if (!m_findBar || m_detail->currentWidget() != m_chatArea)
        return;
    m_findBar->show();
    m_findBar->field()->setFocus(Qt::ShortcutFocusReason);
    m_findBar->field()->selectAll();
    m_find->prepare();
    if (!m_findBar->text().isEmpty() && m_find->count() == 0)
        m_find->setQuery(m_findBar->text());
}

void ContentView::openFindAt(const QString &words, qsizetype fromMessage)
{
    if (!m_findBar || m_detail->currentWidget() != m_chatArea)
        return;
    // A content change of its own: the switch's pending scrolls to the end give way to the hit,
    // and so does a scroll still running from before.
    const qint64 token = m_scroll->beginContentChange();
    m_findBar->setText(words);
    m_findBar->show();
    m_find->setQuery(words, std::max<qsizetype>(0, fromMessage));
    m_scroll->userDidScroll(m_chat->isStreaming());
    const QScrollBar *bar = static_cast<TranscriptView *>(m_transcript)->area()->verticalScrollBar();
    m_scroll->setAutoScroll(bar->value() >= bar->maximum() - int(ScrollController::nearThreshold));
    m_scroll->endContentChangeSoon(token);
}

void ContentView::closeFind()
{
    if (!m_findBar)
        return;
    m_findBar->hide();
    m_findBar->setText(QString());
    m_find->clear();
    focusComposer();
}

void ContentView::handleFindMoved()
{
    // Going to a hit is the user's own scroll: a running scroll to the end stops, and auto-follow
    // goes by where the view is now, by its usual rules.
    if (m_find->currentIndex() >= 0)
        m_scroll->userDidScroll(m_chat->isStreaming());
}

void ContentView::focusComposer()
{
    if (m_composerRow && m_detail->currentWidget() == m_chatArea)
        m_composerRow->composer()->setFocus(Qt::OtherFocusReason);
}

void ContentView::handleConversationUpdated(const QUuid &id)
{
    if (id != m_seenID)
        return;
    const Conversation *selected = m_chats->find(id);
    if (!selected || m_chats->selectedID() != id)
        return;
    // A reply another window streamed and then dropped (it failed with nothing) leaves the record
    // as it was: the transcript still reloads, or it would keep showing that reply.
    if (selected->messages == m_seenMessages && !m_chat->showsOthersReplies())
        return;
    m_seenMessages = selected->messages;
    // Our own saves leave the store holding what we show; anything else is another window's turn,
    // shown here unless a reply of ours is streaming (its end saves over the record anyway).
    if (m_chat->isStreaming() || m_seenMessages == m_chat->messages())
        return;
    const qint64 token = m_scroll->beginContentChange();
    m_chat->activate(*selected);
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
        // The first provider replaces the empty state under the user's focus (its settings
        // button); hidden, that focus would fall to the next control, the sidebar's New Chat.
        // What the user came for is typing, so the composer takes it.
        QWidget *focus = window()->focusWidget();
        const bool focusWasOnEmptyState =
            m_detail->currentWidget() == m_emptyState && (!focus || m_emptyState->isAncestorOf(focus));
        ensureChatArea();
        m_detail->setCurrentWidget(m_chatArea);
        if (focusWasOnEmptyState)
            focusComposer();
    }
}

void ContentView::applyColours()
{
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    Theme::setTextColour(m_emptyText, secondary);
    if (m_divider)
        Theme::setTextColour(m_divider, Theme::withOpacity(secondary, 0.3));
    m_emptyIcon->setPixmap(Theme::symbolIcon(QLatin1StringView("key.horizontal"), secondary).pixmap(40, 40));

    // The prominent button is filled with the accent colour.
    if (auto *open = m_emptyState->findChild<QPushButton *>(u"openSettingsButton"_s)) {
        QPalette buttonPalette = open->palette();
        buttonPalette.setColor(QPalette::Button, palette().color(QPalette::Highlight));
        buttonPalette.setColor(QPalette::ButtonText, palette().color(QPalette::HighlightedText));
        open->setPalette(buttonPalette);
    }
}
