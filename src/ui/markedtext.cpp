#include "ui/markedtext.h"

#include "ui/theme.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QRegion>
#include <QTextLine>

#include <algorithm>

namespace MarkedText {

void draw(QPainter *painter, const QTextLayout &layout, QPointF origin, const QList<QTextLayout::FormatRange> &colours,
          const QList<Mark> &marks, const QRectF &shownClip, int lineCount)
{
    QRectF clip = shownClip;
    origin += layout.position();
    const int lines = lineCount < 0 ? layout.lineCount() : std::min(lineCount, layout.lineCount());
    if (lines == 0)
        return;
    if (lines < layout.lineCount()) {
        // The layout draws whole lines that meet its clip: the lines past the last one drawn
        // start below this band.
        const QTextLine last = layout.lineAt(lines - 1);
        const QRectF band(QPointF(-(1 << 24), origin.y() + layout.lineAt(0).y()),
                          QPointF(1 << 24, origin.y() + last.y() + last.height()));
        clip = clip.isValid() ? clip.intersected(band) : band;
        if (!clip.isValid())
            return;
    }
    if (marks.isEmpty()) {
        layout.draw(painter, origin - layout.position(), colours, clip);
        return;
    }
    const QTextCharFormat styles[2] = {Theme::findHighlight(0, 0, false).format,
                                       Theme::findHighlight(0, 0, true).format};
    const QColor pen = painter->pen().color();
    // The marked words whose text takes the mark's own ink, by style (plain, current). Where the
    // ink is the text's own colour and nothing else colours the word, the text drawn once serves.
    QRegion inked[2];
    const auto coloured = [&](const Mark &mark) {
        return std::any_of(colours.cbegin(), colours.cend(), [&](const QTextLayout::FormatRange &range) {
            return range.start < mark.start + mark.length && mark.start < range.start + range.length;
        });
    };
    int lineIndex = 0;
    for (const Mark &mark : marks) {
        const QTextCharFormat &style = styles[mark.current];
        const bool inks =
            style.hasProperty(QTextFormat::ForegroundBrush) && (style.foreground().color() != pen || coloured(mark));
        const int to = mark.start + mark.length;
        // Marks come in order, so the lines are walked once for all of them.
        while (lineIndex + 1 < lines &&
               layout.lineAt(lineIndex).textStart() + layout.lineAt(lineIndex).textLength() <= mark.start)
            ++lineIndex;
        for (int l = lineIndex; l < lines; ++l) {
            const QTextLine line = layout.lineAt(l);
            const int lineStart = line.textStart();
            if (lineStart >= to)
                break;
            const int a = std::max(mark.start, lineStart);
            const int b = std::min(to, lineStart + line.textLength());
            if (b <= a)
                continue;
            // Right-to-left text runs from the right: the edges are taken in either order.
            const qreal x1 = line.cursorToX(a);
            const qreal x2 = line.cursorToX(b);
            const qreal top = origin.y() + line.y();
            // Whole pixels, so the background and the ink's clip cover the same ones.
            const QRect rect(QPoint(qRound(origin.x() + std::min(x1, x2)), qRound(top)),
                             QPoint(qRound(origin.x() + std::max(x1, x2)) - 1, qRound(top + line.height()) - 1));
            if (rect.isEmpty() || (clip.isValid() && !clip.intersects(rect)))
                continue;
            painter->fillRect(rect, style.background());
            if (inks)
                inked[mark.current] += rect;
        }
    }
    if (inked[0].isEmpty() && inked[1].isEmpty()) {
        layout.draw(painter, origin - layout.position(), colours, clip);
        return;
    }
    // The text around the inked words in its own colours, then those words in their ink: each
    // pixel is drawn once, so no other colour shows at a glyph's edge.
    const int margin = int(QFontMetricsF(layout.font()).height()) + 1;
    const QTextLine firstLine = layout.lineAt(0);
    const QTextLine lastLine = layout.lineAt(lines - 1);
    const QRect around(QPoint(-(1 << 24), qRound(origin.y() + firstLine.y()) - margin),
                       QPoint(1 << 24, qRound(origin.y() + lastLine.y() + lastLine.height()) + margin));
    painter->save();
    painter->setClipRegion(QRegion(around) - inked[0] - inked[1], Qt::IntersectClip);
    layout.draw(painter, origin - layout.position(), colours, clip);
    painter->restore();
    for (int current = 0; current < 2; ++current) {
        if (inked[current].isEmpty())
            continue;
        painter->save();
        painter->setClipRegion(inked[current], Qt::IntersectClip);
        painter->setPen(styles[current].foreground().color());
        for (int l = 0; l < lines; ++l) {
            const QTextLine line = layout.lineAt(l);
            const QRect band(QPoint(-(1 << 24), qRound(origin.y() + line.y())),
                             QPoint(1 << 24, qRound(origin.y() + line.y() + line.height()) - 1));
            if (inked[current].intersects(band))
                line.draw(painter, origin);
        }
        painter->restore();
    }
}

} // namespace MarkedText
