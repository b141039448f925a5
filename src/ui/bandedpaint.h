#pragma once

#include <QRect>

#include <functional>

class QBrush;
class QPainter;
class QStyle;

// Qt's raster engine shares any one fill of more than about a hundred spans (a span being a run
// of pixels on one row) out among the global thread pool's threads and waits for them all. On a
// busy machine that wait, not the fill, is what a repaint costs: the painting thread sleeps until
// the scheduler gets round to the pool. Tall parts are therefore painted a band of rows at a
// time, each band few enough spans to stay on the painting thread. Clipping to a band changes no
// pixel: antialiased edges and gradients are worked out from the whole shape either way.
namespace BandedPaint {

// Rows per band when a row holds up to three spans (a fill with antialiased edges, a frame's two
// sides and its fill).
inline constexpr int bandRows = 32;

// Calls draw once for each band of at most rows rows across area that meets the painter's
// current clip, with the painter clipped to that band; the painter's state is as before after.
void inBands(QPainter &painter, const QRect &area, const std::function<void()> &draw, int rows = bandRows);

// Fills a rounded rectangle with whole-pixel sides as one antialiased path would, in bands: the
// straight middle as plain rectangles, the rounded ends as the path clipped to them.
void fillRoundedRect(QPainter &painter, const QRect &rect, qreal radius, const QBrush &brush);

// A style drawing scroll bars in bands, and everything else as the application's style does.
// Set on a scroll bar (QWidget::setStyle) that can be tall. Owned by the application object;
// made again by the first call after the application's style changed.
QStyle *scrollBarStyle();

} // namespace BandedPaint
