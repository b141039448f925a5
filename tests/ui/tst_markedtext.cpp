#include "ui/markedtext.h"
#include "ui/theme.h"

#include <QApplication>
#include <QImage>
#include <QPainter>
#include <QTest>
#include <QTextLine>

using Mark = MarkedText::Mark;

Q_DECLARE_METATYPE(QList<Mark>)

namespace {

QImage drawn(const QTextLayout &layout, const QColor &pen, const QList<QTextLayout::FormatRange> &colours,
             const QList<Mark> &marks)
{
    QImage image(220, 80, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setPen(pen);
    MarkedText::draw(&painter, layout, QPointF(4, 4), colours, marks);
    return image;
}

// The rectangles a mark covers, one per line, as the reader sees them.
QList<QRect> rectsOf(const QTextLayout &layout, const Mark &mark)
{
    QList<QRect> rects;
    for (int l = 0; l < layout.lineCount(); ++l) {
        const QTextLine line = layout.lineAt(l);
        const int a = std::max(mark.start, line.textStart());
        const int b = std::min(mark.start + mark.length, line.textStart() + line.textLength());
        if (b > a)
            rects.append(QRectF(QPointF(4 + line.cursorToX(a), 4 + line.y()),
                                QPointF(4 + line.cursorToX(b), 4 + line.y() + line.height()))
                             .normalized()
                             .toRect()
                             .adjusted(1, 1, -1, -1));
    }
    return rects;
}

} // namespace

class tst_MarkedText : public QObject
{
    Q_OBJECT

private slots:
    void marks_fillTheirWordsAndLeaveTheRestAsDrawn_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QColor>("pen");
        QTest::addColumn<QList<Mark>>("marks");
        QTest::addColumn<int>("linked"); // a range this long from the start is drawn in blue

        const QList<Mark> many = {{0, 3, false}, {8, 3, true}, {16, 3, false}, {24, 3, false}};
        QTest::newRow("several in a line, one current")
            << u"abc xyz abc xyz abc xyz abc"_qs << QColor(Qt::black) << many << 0;
        QTest::newRow("in grey text, inked") << u"abc xyz abc xyz abc xyz abc"_qs << QColor(Qt::gray) << many << 0;
        QTest::newRow("over a link, inked")
            << u"abc xyz abc xyz abc"_qs << QColor(Qt::black) << QList<Mark>{{4, 7, false}} << 12;
        QTest::newRow("wrapped across two lines") << u"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz"_qs
                                                  << QColor(Qt::black) << QList<Mark>{{20, 20, true}} << 0;
        QTest::newRow("right to left") << QString::fromUtf8("שלום עולם abc שלום") << QColor(Qt::black)
                                       << QList<Mark>{{5, 4, false}, {10, 3, true}} << 0;
    }
    void marks_fillTheirWordsAndLeaveTheRestAsDrawn()
    {
        QFETCH(QString, text);
        QFETCH(QColor, pen);
        QFETCH(QList<Mark>, marks);
        QFETCH(int, linked);

        QTextLayout layout(text, QApplication::font());
        QTextOption option;
        option.setWrapMode(QTextOption::WrapAnywhere);
        layout.setTextOption(option);
        layout.beginLayout();
        qreal y = 0;
        for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
            line.setLineWidth(200);
            line.setPosition(QPointF(0, y));
            y += line.height() + 1;
        }
        layout.endLayout();
        QList<QTextLayout::FormatRange> colours;
        if (linked > 0) {
            QTextCharFormat blue;
            blue.setForeground(QColor(Qt::blue));
            colours.append({0, linked, blue});
        }

        const QImage plain = drawn(layout, pen, colours, {});
        const QImage marked = drawn(layout, pen, colours, marks);
        QList<QRect> all;
        for (const Mark &mark : std::as_const(marks)) {
            // The tint as it shows on the white page.
            QImage tint(1, 1, QImage::Format_RGB32);
            tint.fill(Qt::white);
            QPainter(&tint).fillRect(tint.rect(), Theme::findHighlight(0, 0, mark.current).format.background());
            const QColor background = tint.pixelColor(0, 0);
            const QList<QRect> rects = rectsOf(layout, mark);
            QVERIFY(!rects.isEmpty());
            for (const QRect &rect : rects) {
                all.append(rect.adjusted(-2, -2, 2, 2));
                int filled = 0;
                int glyph = 0;
                for (int py = rect.top(); py <= rect.bottom(); ++py) {
                    for (int px = rect.left(); px <= rect.right(); ++px) {
                        const QColor c = marked.pixelColor(px, py);
                        filled += c == background;
                        glyph += c.lightness() < 100;
                        // A word in a coloured range takes the mark's ink.
                        QVERIFY2(!(c.blue() > 180 && c.red() < 80),
                                 qPrintable(QStringLiteral("blue at %1,%2").arg(px).arg(py)));
                    }
                }
                QVERIFY2(filled > rect.width() * rect.height() / 3,
                         qPrintable(QStringLiteral("filled %1").arg(filled)));
                QVERIFY(glyph > 0); // the word's text is there, on its background
            }
        }
        // Everything away from the marks is exactly as drawn without them: drawn once, nothing lost.
        for (int py = 0; py < plain.height(); ++py) {
            for (int px = 0; px < plain.width(); ++px) {
                if (std::none_of(all.cbegin(), all.cend(), [&](const QRect &r) { return r.contains(px, py); }))
                    QCOMPARE(marked.pixel(px, py), plain.pixel(px, py));
            }
        }
    }
};

QTEST_MAIN(tst_MarkedText)
#include "tst_markedtext.moc"
