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
    // Bands are cut in whole rows of the painter before its own transform (a button scaled as it
    // comes into view): cut in its scaled rows, neighbouring bands would share a row, drawn twice.
    const QTransform world = painter.worldTransform();
    const QRect todo = world.mapRect(QRectF(paintedPart(painter, area))).toAlignedRect();
    if (todo.isEmpty())
        return;
    // A band is counted in the device's rows: a high-density screen has more of them to a point.
    const qreal ratio = painter.device() ? std::max(1.0, painter.device()->devicePixelRatioF()) : 1.0;
    const int step = std::max(1, int(rows / ratio));
    for (int top = todo.top(); top <= todo.bottom(); top += step) {
        painter.save();
        painter.setWorldTransform(QTransform());
        painter.setClipRect(QRect(todo.left(), top, todo.width(), std::min(step, todo.bottom() + 1 - top)),
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
    // A shape shorter than its two corners is rounded all the way down.
    if (rect.height() <= 2 * end) {
        inBands(painter, rect, [&] { painter.fillPath(path, brush); });
        return;
    }
    // Below the top corners and above the bottom ones the shape is whole pixels wide: a plain
    // rectangle, which the engine fills without antialiasing work.
    const QRect middle = rect.adjusted(0, end, 0, -end);
    for (const QRect &cap : {QRect(rect.left(), rect.top(), rect.width(), end),
                             QRect(rect.left(), middle.bottom() + 1, rect.width(), rect.bottom() - middle.bottom())}) {
        if (cap.isEmpty())
            continue;
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
