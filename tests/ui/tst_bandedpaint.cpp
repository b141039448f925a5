#include "ui/bandedpaint.h"

#include <QApplication>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QTest>

#include <functional>

namespace {

QImage painted(const QSize &size, const std::function<void(QPainter &)> &draw, qreal ratio = 1)
{
    QImage image(size * ratio, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(QColor(240, 240, 240));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    draw(painter);
    return image;
}

// The most any colour channel of any pixel differs between the two.
int largestDifference(const QImage &a, const QImage &b)
{
    if (a.size() != b.size())
        return 256;
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto *lineA = reinterpret_cast<const QRgb *>(a.constScanLine(y));
        const auto *lineB = reinterpret_cast<const QRgb *>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            for (int shift : {0, 8, 16, 24})
                largest =
                    std::max(largest, std::abs(int((lineA[x] >> shift) & 0xff) - int((lineB[x] >> shift) & 0xff)));
        }
    }
    return largest;
}

} // namespace

class tst_BandedPaint : public QObject
{
    Q_OBJECT

private slots:
    void roundedRect_looksLikeOnePath_data()
    {
        QTest::addColumn<QRect>("rect");
        QTest::addColumn<qreal>("radius");
        QTest::addColumn<QColor>("colour");
        QTest::addColumn<QRect>("clip");
        const QColor opaque(30, 90, 200);
        const QColor translucent(30, 90, 200, 31);
        QTest::newRow("tall, translucent") << QRect(3, 2, 120, 700) << 10.0 << translucent << QRect();
        QTest::newRow("fractional radius") << QRect(0, 0, 80, 301) << 7.5 << translucent << QRect();
        QTest::newRow("shorter than its corners") << QRect(5, 5, 60, 13) << 10.0 << translucent << QRect();
        QTest::newRow("one row") << QRect(5, 5, 60, 1) << 4.0 << opaque << QRect();
        QTest::newRow("exposed strip") << QRect(3, 2, 120, 700) << 10.0 << translucent << QRect(0, 200, 130, 77);
    }
    void roundedRect_looksLikeOnePath()
    {
        QFETCH(QRect, rect);
        QFETCH(qreal, radius);
        QFETCH(QColor, colour);
        QFETCH(QRect, clip);
        const QSize size(rect.right() + 10, rect.bottom() + 10);
        const auto filled = [&](qreal ratio, bool banded) {
            return painted(
                size,
                [&](QPainter &painter) {
                    if (!clip.isNull())
                        painter.setClipRect(clip);
                    QPainterPath path;
                    path.addRoundedRect(QRectF(rect), radius, radius);
                    banded ? BandedPaint::fillRoundedRect(painter, rect, radius, colour)
                           : painter.fillPath(path, colour);
                },
                ratio);
        };
        // Also on screens of a higher density, whole and fractional, where a point is not a pixel.
        for (const qreal ratio : {1.0, 1.25, 1.5, 2.0})
            QVERIFY2(filled(ratio, true) == filled(ratio, false), qPrintable(QString::number(ratio)));
    }
    void inBands_looksLikeOneDraw_data()
    {
        QTest::addColumn<qreal>("scale");
        QTest::addColumn<int>("rows");
        QTest::addColumn<int>("tolerance");
        QTest::newRow("as laid out") << 1.0 << BandedPaint::bandRows << 0;
        QTest::newRow("enlarged") << 1.5 << BandedPaint::bandRows << 0;
        // A button growing into view about its centre: an outline thinner than a pixel is drawn as a
        // hairline, whose shading along a band's edge may differ by a level or two in a channel.
        QTest::newRow("shrunk about the centre, thin bands") << 0.7 << 8 << 2;
    }
    void inBands_looksLikeOneDraw()
    {
        QFETCH(qreal, scale);
        QFETCH(int, rows);
        QFETCH(int, tolerance);
        // A half-pixel outline over a translucent fill: every row holds antialiased edges.
        QPainterPath path;
        path.addRoundedRect(QRectF(0.5, 0.5, 200, 400), 8, 8);
        const auto draw = [&](QPainter &painter) {
            painter.fillPath(path, QColor(255, 255, 255, 200));
            painter.setPen(QPen(QColor(0, 0, 0, 77), 1));
            painter.drawPath(path);
        };
        const auto placed = [&](QPainter &painter) {
            painter.translate(105, 205);
            painter.scale(scale, scale);
            painter.translate(-105, -205);
        };
        const QImage whole = painted({320, 620}, [&](QPainter &painter) {
            placed(painter);
            draw(painter);
        });
        const QImage banded = painted({320, 620}, [&](QPainter &painter) {
            placed(painter);
            BandedPaint::inBands(
                painter, QRect(0, 0, 210, 410), [&] { draw(painter); }, rows);
        });
        const int difference = largestDifference(banded, whole);
        QVERIFY2(difference <= tolerance, qPrintable(QString::number(difference)));
    }
    void scrollBar_looksAsTheApplicationDrawsIt_data()
    {
        QTest::addColumn<Qt::Orientation>("orientation");
        QTest::addColumn<int>("value");
        QTest::addColumn<int>("pageStep");
        QTest::newRow("vertical, at the top") << Qt::Vertical << 0 << 100;
        QTest::newRow("vertical, long handle in the middle") << Qt::Vertical << 400 << 900;
        QTest::newRow("vertical, at the end") << Qt::Vertical << 1000 << 20;
        QTest::newRow("horizontal") << Qt::Horizontal << 300 << 200;
    }
    void scrollBar_looksAsTheApplicationDrawsIt()
    {
        QFETCH(Qt::Orientation, orientation);
        QFETCH(int, value);
        QFETCH(int, pageStep);
        const QSize size = orientation == Qt::Vertical ? QSize(16, 700) : QSize(700, 16);
        const auto grab = [&](QStyle *style) {
            QScrollBar bar(orientation);
            if (style)
                bar.setStyle(style);
            bar.setRange(0, 1000);
            bar.setPageStep(pageStep);
            bar.setValue(value);
            bar.resize(size);
            return bar.grab().toImage();
        };
        QStyle *banded = BandedPaint::scrollBarStyle();
        QVERIFY(banded);
        QCOMPARE(grab(banded), grab(nullptr));
    }
};

QTEST_MAIN(tst_BandedPaint)
#include "tst_bandedpaint.moc"
