#include "ui/conversationsidebar.h"

#include "storage/conversationstore.h"
#include "storage/historysearch.h"
#include "storage/providerstore.h"
#include "ui/bandedpaint.h"
#include "ui/conversationdelegate.h"
#include "ui/conversationlistmodel.h"
#include "ui/conversationlistview.h"
#include "ui/searchresultsmodel.h"
#include "ui/theme.h"

#include <QAccessible>
#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QElapsedTimer>
#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMouseEvent>
#include <QPushButton>
#include <QScrollBar>
#include <QShortcut>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <utility>

using namespace Qt::StringLiterals;

ConversationSidebar::ConversationSidebar(ProviderStore *providers, ConversationStore *chats, QWidget *parent)
    : QWidget(parent)
    , m_providers(providers)
    , m_chats(chats)
    , m_listModel(new ConversationListModel(chats, this))
{
    setObjectName(u"sidebar"_s);
    setMinimumWidth(minimumWidth);
    setMaximumWidth(maximumWidth);

    m_newChat =
        Theme::symbolButton(QLatin1StringView("square.and.pencil"), u"New chat (Ctrl+N)"_s, u"newChatButton"_s, this);
    connect(m_newChat, &QToolButton::clicked, this, [this] {
        m_chats->startChat(m_providers->selectedID());
        emit composerFocusRequested();
    });

    m_list = new ConversationListView(this);
    m_list->setObjectName(u"conversationList"_s);
    m_list->setAccessibleName(u"Conversations"_s);
    m_list->setModel(m_listModel);
    m_list->setItemDelegate(new ConversationDelegate(m_list));
    m_list->setUniformItemSizes(true);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->verticalScrollBar()->setStyle(BandedPaint::scrollBarStyle());
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &ConversationSidebar::handleListSelection);
    connect(m_list, &QListView::customContextMenuRequested, this, &ConversationSidebar::handleContextMenu);
    m_list->installEventFilter(this);
    m_list->viewport()->installEventFilter(this);

    m_searchField = new QLineEdit(this);
    m_searchField->setObjectName(u"searchField"_s);
    m_searchField->setPlaceholderText(u"Search"_s);
    m_searchField->setAccessibleName(u"Search conversations"_s);
    m_searchField->setToolTip(u"Search conversations (Ctrl+Shift+F)"_s);
    m_searchField->setClearButtonEnabled(true);
    // The field's icon buttons are read out by screen readers as well: each gets a name.
    QAction *magnifier =
        m_searchField->addAction(Theme::symbolIcon(QLatin1StringView("magnifyingglass")), QLineEdit::LeadingPosition);
    magnifier->setText(u"Search conversations"_s);
    connect(magnifier, &QAction::triggered, this, &ConversationSidebar::focusSearch);
    for (QAction *action : m_searchField->findChildren<QAction *>()) {
        if (action != magnifier && action->text().isEmpty())
            action->setText(u"Clear search"_s);
    }
    m_searchField->installEventFilter(this);
    connect(m_searchField, &QLineEdit::textChanged, this, &ConversationSidebar::runSearch);
    connect(m_searchField, &QLineEdit::returnPressed, this, [this] {
        // Return opens the first result, as a click on it would.
        if (isSearching() && m_results->rowCount() > 0 && m_list->model() == m_results)
            m_list->setCurrentIndex(
                m_results->index(m_list->currentIndex().isValid() ? m_list->currentIndex().row() : 0));
    });
    m_searchStatus = new QLabel(this);
    m_searchStatus->setObjectName(u"searchStatus"_s);
    m_searchStatus->setFont(Theme::font(Theme::TextStyle::Caption));
    m_searchStatus->setContentsMargins(10, 0, 8, 4);
    m_searchStatus->hide();

    auto *search = new QShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_F), this);
    search->setContext(Qt::WindowShortcut);
    connect(search, &QShortcut::activated, this, &ConversationSidebar::focusSearch);
    // The focus that Escape gives back is the one the field was reached from, by any way.
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget *old, QWidget *now) {
        if (now == m_searchField && old && old != m_searchField && old->window() == window())
            m_returnFocus = old;
    });

    m_results = new SearchResultsModel(this);
    m_search = new HistorySearch(this);
    connect(m_search, &HistorySearch::resultsFound, this, &ConversationSidebar::handleSearchResults);
    connect(m_search, &HistorySearch::finished, this, &ConversationSidebar::handleSearchFinished);
    // The history changed under the results shown (a reply saved, a rename, a deletion): search it
    // again once it settles.
    m_rerun = new QTimer(this);
    m_rerun->setSingleShot(true);
    m_rerun->setInterval(300);
    connect(m_rerun, &QTimer::timeout, this, [this] {
        if (isSearching())
            runSearch();
    });

    m_showFound = new QTimer(this);
    m_showFound->setSingleShot(true);
    // A millisecond apart, not at once: the loop then reads input between one slice and the next,
    // and the turn that shows the rows starts on its own.
    m_showFound->setInterval(1);
    connect(m_showFound, &QTimer::timeout, this, &ConversationSidebar::showFound);

    auto *toolbar = new QHBoxLayout;
    toolbar->setContentsMargins(8, 6, 8, 6);
    toolbar->setSpacing(6);
    toolbar->addWidget(m_searchField, 1);
    toolbar->addWidget(m_newChat);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(toolbar);
    layout->addWidget(m_searchStatus);
    layout->addWidget(m_list);
    setTabOrder(m_searchField, m_newChat);
    setTabOrder(m_newChat, m_list);
    applyColours();

    // Direct, like the window's own reaction: the list shows the new selection before anything
    // the switch sets off.
    connect(m_chats, &ConversationStore::selectedIDChanged, this, &ConversationSidebar::syncListSelection,
            Qt::DirectConnection);
    connect(m_chats, &ConversationStore::conversationsChanged, this, &ConversationSidebar::syncListSelection,
            Qt::DirectConnection);
    connect(m_chats, &ConversationStore::conversationsChanged, this, [this] {
        if (isSearching())
            m_rerun->start();
    });
    syncListSelection();
}

QWidget *ConversationSidebar::lastInFocusChain() const
{
    return m_list;
}

bool ConversationSidebar::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_searchField && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Escape) {
            clearSearch();
            return true;
        }
        // Down walks into the results, as in any search field with a list below it.
        if (key->key() == Qt::Key_Down && m_list->model()->rowCount() > 0) {
            m_list->setFocus(Qt::TabFocusReason);
            return true;
        }
    }
    if (watched == m_list->viewport() &&
        (event->type() == QEvent::MouseButtonPress || event->type() == QEvent::MouseButtonDblClick)) {
        // The item view would select the row under any button; choosing a row switches every
        // window and ends a reply streaming there, which a right-click must not do.
        if (static_cast<QMouseEvent *>(event)->button() == Qt::RightButton)
            return true;
    }
    if (watched == m_list && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        if ((key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) && key->modifiers() == Qt::NoModifier) {
            emit composerFocusRequested();
            return true;
        }
        // The list handles the key itself; the flag covers the selection change it makes.
        m_keyboardSelecting = true;
        const bool handled = static_cast<QObject *>(m_list)->event(event);
        m_keyboardSelecting = false;
        return handled;
    }
    return QWidget::eventFilter(watched, event);
}

void ConversationSidebar::handleListSelection()
{
    if (m_syncingList)
        return;
    const QModelIndexList rows = m_list->selectionModel()->selectedRows();
    if (rows.size() != 1) {
        // The list never shows less than the store's selection.
        syncListSelection();
        return;
    }
    const QModelIndex row = rows.first();
    const QUuid id = row.data(ConversationListModel::IdRole).toUuid();
    const bool changed = m_chats->selectedID() != id;
    m_chats->setSelectedID(id);
    if (m_list->model() == m_results && (changed || m_chats->selectedID() == id))
        emit resultChosen(m_searchField->text(), row.data(ConversationListModel::MessageIndexRole).value<qsizetype>());
}

void ConversationSidebar::handleContextMenu(const QPoint &pos)
{
    const QModelIndex index = m_list->indexAt(pos);
    if (!index.isValid())
        return;
    const Conversation *found = m_chats->find(index.data(ConversationListModel::IdRole).toUuid());
    if (!found)
        return;
    const Conversation conversation = *found;

    auto *menu = new QMenu(this);
    menu->setObjectName(u"conversationMenu"_s);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->addAction(Theme::symbolIcon(QLatin1StringView("pencil")), u"Rename"_s, this,
                    [this, conversation] { openRenameDialog(conversation); });
    menu->addAction(Theme::symbolIcon(QLatin1StringView("trash")), u"Delete"_s, this,
                    [this, id = conversation.id] { deleteConversation(id); });
    menu->addSeparator();
    menu->addAction(u"System Prompt…"_s, this, [this, id = conversation.id] { emit systemPromptRequested(id); });
    menu->popup(m_list->viewport()->mapToGlobal(pos));
}

void ConversationSidebar::deleteConversation(const QUuid &id)
{
    // The record as it is at this moment, not as it was when the menu opened: undo brings back
    // exactly what was deleted.
    const Conversation *found = m_chats->find(id);
    if (!found)
        return;
    const Conversation deleted = *found;
    const bool wasSelected = m_chats->selectedID() == id;
    m_chats->deleteConversation(deleted);
    emit conversationDeleted(deleted, wasSelected);
}

void ConversationSidebar::openRenameDialog(const Conversation &conversation)
{
    m_renameTarget = conversation.id;

    auto *dialog = new QDialog(this);
    dialog->setObjectName(u"renameDialog"_s);
    dialog->setWindowTitle(u"Rename chat"_s);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setMinimumWidth(320);

    auto *title = new QLabel(u"Rename chat"_s, dialog);
    title->setFont(Theme::font(Theme::TextStyle::Headline));
    auto *field = new QLineEdit(conversation.title, dialog);
    field->setObjectName(u"renameField"_s);
    field->setPlaceholderText(u"Title"_s);
    field->setAccessibleName(u"Title"_s);
    field->selectAll();
    auto *buttons = new QDialogButtonBox(dialog);
    buttons->addButton(u"Cancel"_s, QDialogButtonBox::RejectRole);
    QPushButton *rename = buttons->addButton(u"Rename"_s, QDialogButtonBox::AcceptRole);
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
            m_chats->rename(*m_renameTarget, field->text());
    });
    connect(dialog, &QDialog::finished, this, [this] { m_renameTarget.reset(); });
    dialog->open();
    field->setFocus();
}

void ConversationSidebar::syncListSelection()
{
    m_syncingList = true;
    const bool results = m_list->model() == m_results;
    const int row = results ? m_results->rowOf(m_chats->selectedID()) : m_listModel->rowOf(m_chats->selectedID());
    if (row >= 0) {
        const QModelIndex index = m_list->model()->index(row, 0);
        // Asked to bring a row into sight, the list repaints it even when it is in sight already,
        // and the selection is synced again at every batch of search results.
        const bool inSight =
            index == m_list->currentIndex() && m_list->viewport()->rect().contains(m_list->visualRect(index));
        m_list->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
        if (!inSight)
            m_list->scrollTo(index);
    } else {
        m_list->selectionModel()->clear();
    }
    m_syncingList = false;
}

QListView *ConversationSidebar::list() const
{
    return m_list;
}

QString ConversationSidebar::searchStatus() const
{
    return m_searchStatus->text();
}

bool ConversationSidebar::isSearching() const
{
    return !m_searchField->text().trimmed().isEmpty();
}

bool ConversationSidebar::isSearchComplete() const
{
    return !isSearching() || (!m_search->isRunning() && !m_resultsStale && m_found.isEmpty());
}

void ConversationSidebar::focusSearch()
{
    m_searchField->setFocus(Qt::ShortcutFocusReason);
    m_searchField->selectAll();
}

void ConversationSidebar::clearSearch()
{
    m_searchField->clear();
    if (m_returnFocus)
        m_returnFocus->setFocus(Qt::OtherFocusReason);
    else
        emit composerFocusRequested();
}

void ConversationSidebar::runSearch()
{
    m_found.clear();
    m_preparedTo = 0;
    m_showFound->stop();
    if (!isSearching()) {
        m_search->cancel();
        m_rerun->stop();
        m_resultsStale = false;
        m_results->setResults({});
        if (m_list->model() != m_listModel) {
            m_list->setModel(m_listModel);
            connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
                    &ConversationSidebar::handleListSelection);
        }
        syncListSelection();
        syncSearchStatus();
        return;
    }
    if (m_list->model() != m_results) {
        m_results->setResults({});
        m_list->setModel(m_results);
        connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
                &ConversationSidebar::handleListSelection);
    }
    // The rows of the last query stay until this one has something to show: no blank flash
    // between keystrokes.
    m_resultsStale = true;
    m_search->start(m_chats->conversations(), m_searchField->text());
    syncSearchStatus();
}

void ConversationSidebar::handleSearchResults(const QList<SearchResult> &results)
{
    m_found.append(results);
    showFound();
}

void ConversationSidebar::handleSearchFinished()
{
    showFound();
}

void ConversationSidebar::showFound()
{
    // A slice is a few rows: shaping one takes a fifth of a millisecond or so.
    constexpr qint64 sliceNs = 750'000;
    const auto *delegate = static_cast<const ConversationDelegate *>(m_list->itemDelegate());
    const int shown = m_resultsStale ? 0 : m_results->rowCount();
    const int total = shown + int(m_found.size());
    const int top = m_resultsStale ? 0 : std::max(0, m_list->indexAt(QPoint(0, 0)).row());
    const int end = std::min(total, top + m_list->viewport()->height() / ConversationDelegate::rowHeight(true) + 2);
    const int width = rowWidth(total);
    // Rows already shown need shaping again only when the scroll bar comes or goes with these.
    const bool widthChanges = shown > 0 && m_list->visualRect(m_results->index(0)).width() != width;
    if (width != m_preparedWidth) {
        m_preparedWidth = width;
        m_preparedTo = 0;
    }
    QElapsedTimer slice;
    slice.start();
    bool shaped = false;
    for (int row = std::max(m_preparedTo, widthChanges ? top : std::max(top, shown)); row < end; ++row) {
        if (shaped && slice.nsecsElapsed() >= sliceNs)
            break;
        const SearchResult &result = row < shown ? m_results->results().at(row) : m_found.at(row - shown);
        delegate->prepare(result.title, ConversationListModel::dateText(result.updatedAt), result.context,
                          result.contextHits, width);
        m_preparedTo = row + 1;
        shaped = true;
    }
    // The rows are shown on a turn of their own, which then only draws.
    if (shaped) {
        m_showFound->start();
        return;
    }
    // The previous query's rows stay until this one has something to show, or has found nothing.
    if (m_resultsStale && m_found.isEmpty() && m_search->isRunning())
        return;
    const QList<SearchResult> found = std::exchange(m_found, {});
    m_preparedTo = 0;
    if (m_resultsStale) {
        m_resultsStale = false;
        m_list->drawInTwoTurns();
        m_results->setResults(found);
    } else {
        m_results->appendResults(found);
    }
    syncListSelection();
    syncSearchStatus();
}

int ConversationSidebar::rowWidth(int rows) const
{
    // Rows span the viewport, which gives way to the scroll bar once they no longer fit.
    const QSize full = m_list->maximumViewportSize();
    if (rows * ConversationDelegate::rowHeight(true) <= full.height())
        return full.width();
    return full.width() - m_list->verticalScrollBar()->sizeHint().width();
}

void ConversationSidebar::syncSearchStatus()
{
    QString status;
    if (isSearching()) {
        const int count = m_results->rowCount();
        if (!isSearchComplete())
            status = count > 0 && !m_resultsStale ? u"%1 conversations match so far…"_s.arg(count) : u"Searching…"_s;
        else if (count == 0)
            status = u"No conversations match"_s;
        else if (count == 1)
            status = u"1 conversation matches"_s;
        else
            status = u"%1 conversations match"_s.arg(count);
    }
    if (status == m_searchStatus->text())
        return;
    m_searchStatus->setText(status);
    m_searchStatus->setVisible(!status.isEmpty());
    m_searchField->setAccessibleDescription(status);
    // Said once the count is known, not at every batch: a screen reader would read each one.
    if (isSearchComplete()) {
        QAccessibleEvent event(m_searchField, QAccessible::DescriptionChanged);
        QAccessible::updateAccessibility(&event);
        QAccessibleEvent shown(m_searchStatus, QAccessible::NameChanged);
        QAccessible::updateAccessibility(&shown);
    }
}

void ConversationSidebar::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
}

void ConversationSidebar::applyColours()
{
    Theme::setTextColour(m_searchStatus, Theme::color(Theme::Color::Secondary, palette()));
}
