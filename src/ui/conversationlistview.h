#pragma once

#include <QListView>
#include <QPersistentModelIndex>

#include <optional>

// The sidebar's list of conversations or search results.
//
// The selection is shared by every window and follows new chats and search results, so the
// current row often moves while the user types in the composer. Qt tells screen readers that the
// new current row has the focus even then, and a reader would follow it away from the composer:
// the row is only announced as focused when the list has the focus. When the user walks the list,
// choosing a row rebuilds the transcript before Qt announces the row, and a reader works through
// that news first: the row is announced as soon as it is current, ahead of the transcript's.
//
// A search adds its results at the end, in batches, many of them below the rows in sight. Qt lays
// the list out again after each batch and repaints every row shown; here a batch repaints only
// the part of the list it lands in, which is nothing when it lands below it (the scroll bar still
// follows). Anything else that moves or changes the rows in sight repaints them all as before.
// Meant for lists of rows of one height (uniform item sizes), in one column.
//
// A list shown anew (a search's first results) can be drawn over two turns of the event loop, the
// rows in the top half of it first: drawing a screenful of new rows at once would hold up the
// window for the time of them all.
class ConversationListView final : public QListView
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationListView)

public:
    explicit ConversationListView(QWidget *parent = nullptr);

    void doItemsLayout() override;
    // The next repaint draws the rows that start in the top half of the list, and on the following
    // turn those below, which are blank meanwhile, and the scroll bar, which shows the rows it
    // showed before until then.
    void drawInTwoTurns();

protected:
    void paintEvent(QPaintEvent *event) override;
    void rowsInserted(const QModelIndex &parent, int start, int end) override;
    void focusInEvent(QFocusEvent *event) override;
    void selectionChanged(const QItemSelection &selected, const QItemSelection &deselected) override;
    void currentChanged(const QModelIndex &current, const QModelIndex &previous) override;

private:
    void announce(const QModelIndex &row);
    void releaseScrollBar();

    // While rows added at the end are laid out, what the list showed before them: where the first
    // of them starts in the viewport, the viewport's size and the top row with its place.
    struct Appended
    {
        int top = 0;
        QSize viewport;
        QPersistentModelIndex topRow;
        QRect topRect;
    };
    std::optional<Appended> m_appended;
    bool m_drawInTwoTurns = false;
    bool m_scrollBarHeld = false;
    QPersistentModelIndex m_announced;
};
