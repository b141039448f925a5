#include "ui/conversationlistview.h"

#include <QAccessible>
#include <QPaintEvent>
#include <QScrollBar>
#include <QTimer>

#include <utility>

ConversationListView::ConversationListView(QWidget *parent)
    : QListView(parent)
{}

void ConversationListView::rowsInserted(const QModelIndex &parent, int start, int end)
{
    const bool atEnd = isVisible() && parent == rootIndex() && start > 0 && end == model()->rowCount(parent) - 1;
    if (!atEnd) {
        QListView::rowsInserted(parent, start, end);
        return;
    }
    // A layout that something else asked for is done first, with the whole repaint it needs.
    executeDelayedItemsLayout();
    const QModelIndex topRow = indexAt(QPoint(0, 0));
    const QRect last = visualRect(model()->index(start - 1, modelColumn(), parent));
    if (topRow.isValid() && last.isValid())
        m_appended = Appended{last.bottom() + 1, viewport()->size(), topRow, visualRect(topRow)};
    QListView::rowsInserted(parent, start, end);
    // Laid out at once, not on a later turn: until then the list has forgotten where every row is,
    // and a row painted meanwhile (a selection, a hover) would be painted blank, with no repaint of
    // the whole list to follow and mend it.
    executeDelayedItemsLayout();
    m_appended.reset();
}

void ConversationListView::doItemsLayout()
{
    if (!m_appended) {
        QListView::doItemsLayout();
        return;
    }
    const Appended appended = *std::exchange(m_appended, std::nullopt);
    // Qt ends every layout with a repaint of the whole viewport, which a batch of rows landing out
    // of sight does not need. Updates are held off for the layout alone, without going through
    // setUpdatesEnabled(), whose return would repaint it all the same; the viewport has no child
    // widgets for the attribute to be kept in step with.
    QWidget *port = viewport();
    const bool hold = port->updatesEnabled();
    if (hold)
        port->setAttribute(Qt::WA_UpdatesDisabled, true);
    QListView::doItemsLayout();
    if (hold)
        port->setAttribute(Qt::WA_UpdatesDisabled, false);
    // A scroll bar that came with the rows narrows them all; a scroll or a new row height moves them.
    if (port->size() != appended.viewport || indexAt(QPoint(0, 0)) != appended.topRow ||
        visualRect(appended.topRow) != appended.topRect)
        port->update();
    else if (appended.top < port->height())
        port->update(0, appended.top, port->width(), port->height() - appended.top);
}

void ConversationListView::drawInTwoTurns()
{
    if (!isVisible())
        return;
    m_drawInTwoTurns = true;
    // The scroll bar is drawn on the second turn too, whether it was shown or comes with the rows:
    // painting a tall bar costs about as much as half the rows. Its updates are held until then,
    // or for a moment at most should the list not be painted.
    QScrollBar *bar = verticalScrollBar();
    if (!m_scrollBarHeld && bar->updatesEnabled()) {
        m_scrollBarHeld = true;
        bar->setUpdatesEnabled(false);
        QTimer::singleShot(100, this, &ConversationListView::releaseScrollBar);
    }
}

void ConversationListView::releaseScrollBar()
{
    // Updates come back with a repaint of the whole bar.
    if (std::exchange(m_scrollBarHeld, false))
        verticalScrollBar()->setUpdatesEnabled(true);
}

void ConversationListView::paintEvent(QPaintEvent *event)
{
    if (!std::exchange(m_drawInTwoTurns, false)) {
        QListView::paintEvent(event);
        return;
    }
    // Split below the row that crosses the middle, so that no row is drawn twice.
    const QModelIndex middle = indexAt(QPoint(0, viewport()->height() / 2));
    const QRect top =
        middle.isValid() ? QRect(0, 0, viewport()->width(), visualRect(middle).bottom() + 1) : viewport()->rect();
    QPaintEvent first(event->region() & top);
    QListView::paintEvent(&first);
    const QRegion rest = event->region() - top;
    QTimer::singleShot(0, this, [this, rest] {
        if (!rest.isEmpty())
            viewport()->update(rest);
        releaseScrollBar();
    });
}

void ConversationListView::focusInEvent(QFocusEvent *event)
{
    QListView::focusInEvent(event);
    // Arriving in the list, a reader says the list; the row the arrows start from follows, on
    // the next turn, since Qt tells of the list itself only after this returns.
    QTimer::singleShot(0, this, [this] {
        if (hasFocus() && QAccessible::isActive() && currentIndex().isValid())
            announce(currentIndex());
    });
}

void ConversationListView::selectionChanged(const QItemSelection &selected, const QItemSelection &deselected)
{
    // The selection model makes the row current before it announces the selection.
    const QModelIndex current = currentIndex();
    if (hasFocus() && current.isValid() && current != m_announced && QAccessible::isActive()) {
        announce(current);
        m_announced = current;
    }
    QListView::selectionChanged(selected, deselected);
}

void ConversationListView::currentChanged(const QModelIndex &current, const QModelIndex &previous)
{
    if (hasFocus() && current != m_announced)
        QListView::currentChanged(current, previous);
    else
        QAbstractItemView::currentChanged(current, previous);
    m_announced = QPersistentModelIndex();
}

void ConversationListView::announce(const QModelIndex &row)
{
    QAccessibleEvent event(this, QAccessible::Focus);
    event.setChild(row.row());
    QAccessible::updateAccessibility(&event);
}
