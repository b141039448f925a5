#pragma once

#include <QFont>
#include <QHash>
#include <QStyledItemDelegate>

#include <memory>

class QTextLayout;

// Draws one sidebar row: the conversation's title on one line, and under it, 2 points lower,
// its date in the smallest caption font and the secondary colour. A search result adds its line
// of context below, the words found in bold. Colours are read from the
// view's palette at paint time, so rows follow a palette change without being rebuilt.
//
// A row's lines are shaped once and kept for as long as its text, width and fonts stay the same:
// while a search delivers its results the list repaints many times over, and shaping a screenful
// of rows each time would hold up typing.
class ConversationDelegate final : public QStyledItemDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationDelegate)

public:
    explicit ConversationDelegate(QObject *parent = nullptr);

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    static constexpr int lineSpacing = 2;
    static constexpr int horizontalPadding = 8;
    static constexpr int verticalPadding = 5;

private:
    struct Lines;
    struct Fonts
    {
        QFont title;
        QFont date;
        QFont context;
        bool operator==(const Fonts &) const = default;
    };

    static bool hasContext(const QModelIndex &index);
    const Lines &linesFor(const QModelIndex &index, int width, const Fonts &fonts) const;

    // Rows shaped so far, by what they show; emptied when it grows past a few screenfuls or the
    // fonts change.
    mutable QHash<QString, std::shared_ptr<const Lines>> m_lines;
    mutable Fonts m_fonts;
};
