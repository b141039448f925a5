#include "ui/bandedpaint.h"

#include <QApplication>
#include <QPaintEngine>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QProxyStyle>
#include <QStyleFactory>
#include <QStyleOption>

#include <cmath>

namespace {

// The rows of area the painter can change: within its clip and the part of the device being
// painted (a widget's exposed region).
QRect paintedPart(QPainter &painter, const QRect &area)
{
    QRect part = area;
    if (painter.hasClipping())
        part &= painter.clipBoundingRect().toAlignedRect();
    if (const QPaintEngine *engine = painter.paintEngine()) {
        const QRegion exposed = engine->systemClip();
        if (!exposed.isEmpty())
            part &= painter.deviceTransform().inverted().mapRect(exposed.boundingRect());
    }
    return part;
}

// How many rows of area the widget's exposed region covers. A moving handle repaints the rows its
// two ends passed, which can lie far apart: the fills between them are cut away by the region, so
// they stay as few spans as those rows hold.
int exposedRows(QPainter &painter, const QRect &area)
{
    const QPaintEngine *engine = painter.paintEngine();
    const QRegion exposed = engine ? engine->systemClip() : QRegion();
    if (exposed.isEmpty())
        return area.height();
    int rows = 0;
    for (const QRect &rect : painter.deviceTransform().inverted().map(exposed) & area)
        rows += rect.height();
    return rows;
}

// Whether the rectangle's edges fall between pixels of the device, not inside one.
bool onWholePixels(const QTransform &device, const QRect &rect)
{
    if (device.type() > QTransform::TxScale)
        return false;
    const QRectF mapped = device.mapRect(QRectF(rect));
    const auto whole = [](qreal v) { return std::abs(v - std::round(v)) < 1e-6; };
    return whole(mapped.left()) && whole(mapped.top()) && whole(mapped.right()) && whole(mapped.bottom());
}

class BandedScrollBarStyle final : public QProxyStyle
{
public:
    using QProxyStyle::QProxyStyle;

    void drawComplexControl(ComplexControl control, const QStyleOptionComplex *option, QPainter *painter,
                            const QWidget *widget) const override
    {
        if (control != CC_ScrollBar || !painter || !option ||
            painter->worldTransform().type() > QTransform::TxTranslate) {
            QProxyStyle::drawComplexControl(control, option, painter, widget);
            return;
        }
        const QRect area = paintedPart(*painter, option->rect);
        if (area.height() <= BandedPaint::bandRows || exposedRows(*painter, area) <= BandedPaint::bandRows) {
            QProxyStyle::drawComplexControl(control, option, painter, widget);
            return;
        }
        // The groove's gradient, its edge lines and the handle's frame each run the bar's whole
        // height. Each band is drawn on a picture of its own and laid over the painter: a style
        // may set a clip of its own part way through, which would undo a band's clip. The arrow
        // buttons are small: drawn once, after the bands, as the style draws them after the
        // groove and the handle.
        const auto *slider = qstyleoption_cast<const QStyleOptionSlider *>(option);
        if (!slider) {
            QProxyStyle::drawComplexControl(control, option, painter, widget);
            return;
        }
        constexpr SubControls arrows = SC_ScrollBarAddLine | SC_ScrollBarSubLine;
        QStyleOptionSlider tall = *slider;
        tall.subControls &= ~arrows;
        const qreal ratio = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
        QImage band(QSizeF(area.width(), BandedPaint::bandRows).toSize() * ratio, QImage::Format_ARGB32_Premultiplied);
        band.setDevicePixelRatio(ratio);
        for (int top = area.top(); top <= area.bottom(); top += BandedPaint::bandRows) {
            const int rows = std::min(BandedPaint::bandRows, area.bottom() + 1 - top);
            band.fill(Qt::transparent);
            {
                QPainter bandPainter(&band);
                bandPainter.setRenderHints(painter->renderHints());
                bandPainter.setFont(painter->font());
                bandPainter.translate(-area.left(), -top);
                QProxyStyle::drawComplexControl(control, &tall, &bandPainter, widget);
            }
            painter->drawImage(QRectF(area.left(), top, area.width(), rows), band,
                               QRectF(0, 0, area.width() * ratio, rows * ratio));
        }
        if (slider->subControls & arrows) {
            QStyleOptionSlider ends = *slider;
            ends.subControls &= arrows;
            QProxyStyle::drawComplexControl(control, &ends, painter, widget);
        }
    }
};

} // namespace

namespace BandedPaint {

void inBands(QPainter &painter, const QRect &area, const std::function<void()> &draw, int rows)
{
    // Bands are cut in whole rows of the device, whatever the painter's transform (a button scaled
    // as it comes into view) and the screen's density. Cut in points, neighbouring bands would
    // share a row, drawn twice, and the outermost ones would cut through a shape's antialiased edge
    // where a point's edge falls inside a pixel.
    const QTransform world = painter.worldTransform();
    const QTransform device = painter.deviceTransform();
    bool invertible = false;
    // The world transform under which the painter's coordinates are the device's pixels.
    const QTransform pixels = device.inverted(&invertible) * world;
    const QRect todo = device.mapRect(QRectF(paintedPart(painter, area))).toAlignedRect();
    if (todo.isEmpty())
        return;
    if (!invertible) {
        draw();
        return;
    }
    for (int top = todo.top(); top <= todo.bottom(); top += rows) {
        painter.save();
        painter.setWorldTransform(pixels);
        painter.setClipRect(QRect(todo.left(), top, todo.width(), std::min(rows, todo.bottom() + 1 - top)),
                            Qt::IntersectClip);
        painter.setWorldTransform(world);
        draw();
        painter.restore();
    }
}

void fillRoundedRect(QPainter &painter, const QRect &rect, qreal radius, const QBrush &brush)
{
    if (rect.isEmpty())
        return;
    QPainterPath path;
    path.addRoundedRect(QRectF(rect), radius, radius);
    const int end = int(std::ceil(radius));
    const QRect middle = rect.adjusted(0, end, 0, -end);
    // Below the top corners and above the bottom ones the shape is a plain rectangle, which the
    // engine fills without antialiasing work, as long as its edges and the corners' ends fall on
    // whole pixels of the device. On a screen of fractional density they can fall inside a pixel,
    // which only the path shades as it should.
    const QTransform device = painter.deviceTransform();
    if (middle.isEmpty() || !onWholePixels(device, rect) || !onWholePixels(device, middle)) {
        inBands(painter, rect, [&] { painter.fillPath(path, brush); });
        return;
    }
    for (const QRect &cap : {QRect(rect.left(), rect.top(), rect.width(), end),
                             QRect(rect.left(), middle.bottom() + 1, rect.width(), rect.bottom() - middle.bottom())}) {
        painter.save();
        painter.setClipRect(cap, Qt::IntersectClip);
        painter.fillPath(path, brush);
        painter.restore();
    }
    inBands(painter, middle, [&] { painter.fillRect(middle, brush); });
}

QStyle *scrollBarStyle()
{
    static QPointer<QStyle> banded;
    static QString bandedName;
    QStyle *application = QApplication::style();
    const QString name = application->name();
    // A style the factory cannot make again (one a plugin set up by hand) is used as it is.
    if (!QStyleFactory::keys().contains(name, Qt::CaseInsensitive))
        return application;
    if (!banded || bandedName != name) {
        banded = new BandedScrollBarStyle(name);
        banded->setParent(qApp);
        bandedName = name;
    }
    return banded;
}

} // namespace BandedPaint
