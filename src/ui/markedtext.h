#pragma once

#include <QList>
#include <QRectF>
#include <QTextLayout>

class QPainter;

// Text with the find bar's hits marked in it. Each hit's background is filled as rectangles over
// the lines it covers and the text is drawn once: handed to the layout as selections instead,
// every hit would draw its lines again, so a paragraph or a code line full of hits would cost a
// draw per hit.
namespace MarkedText {

// One hit, in the layout's text positions; the current one has its own colour.
struct Mark
{
    int start = 0;
    int length = 0;
    bool current = false;
};

// Draws layout at origin in the painter's pen, with colours (ranges of their own foreground, drawn
// as the layout's selections) and marks (in order) in the find highlight's colours. Only lines
// meeting clip are drawn, in the painter's coordinates; an invalid clip draws every line. With
// lineCount at 0 or more, only the layout's first lineCount lines are drawn.
void draw(QPainter *painter, const QTextLayout &layout, QPointF origin, const QList<QTextLayout::FormatRange> &colours,
          const QList<Mark> &marks, const QRectF &clip = QRectF(), int lineCount = -1);

} // namespace MarkedText
