#pragma once

#include <QStyledItemDelegate>

// Draws one sidebar row: the conversation's title on one line, and under it, 2 points lower,
// its date in the smallest caption font and the secondary colour. A search result adds its line
// of context below, the words found in bold. Colours are read from the
// view's palette at paint time, so rows follow a palette change without being rebuilt.
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
    static bool hasContext(const QModelIndex &index);
    static void drawContext(QPainter *painter, const QRect &rect, const QFont &font, const QModelIndex &index,
                            const QColor &color);
};
