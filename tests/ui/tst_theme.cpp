#include "ui/theme.h"

#include <QApplication>
#include <QImage>
#include <QTest>

static int paintedPixels(const QImage &image, QColor *seen = nullptr)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            if (pixel.alpha() > 200) {
                ++count;
                if (seen)
                    *seen = pixel;
            }
        }
    }
    return count;
}

class tst_Theme : public QObject
{
    Q_OBJECT

private slots:
    void symbols_drawVisiblyInTheirTint_data()
    {
        QTest::addColumn<QString>("symbol");
        for (const char *name : {"doc.on.doc", "checkmark", "pencil", "trash", "square.and.pencil", "key.horizontal",
                                 "square.and.arrow.up", "gearshape", "chevron.down", "arrow.clockwise", "arrow.down",
                                 "stop.fill", "arrow.up.circle.fill", "checkmark.circle.fill",
                                 "exclamationmark.triangle.fill", "plus", "minus", "no.such.symbol"})
            QTest::newRow(name) << QString::fromLatin1(name);
    }
    // Ours, and one we do not have, which still draws something.
    void symbols_drawVisiblyInTheirTint()
    {
        QFETCH(QString, symbol);
        const QByteArray latin = symbol.toLatin1();
        const QLatin1StringView name(latin);
        const bool ours = symbol != u"no.such.symbol";
        QCOMPARE(Theme::hasSymbol(name), ours);
        QCOMPARE(Theme::themeIconName(name).isEmpty(), !ours);

        const QImage image = Theme::symbolIcon(name, QColor(Qt::red)).pixmap(QSize(32, 32)).toImage();
        QColor seen;
        QVERIFY2(paintedPixels(image, &seen) > 12, qPrintable(symbol));
        QCOMPARE(seen.red(), 255);
        QCOMPARE(seen.green(), 0);
    }
};

QTEST_MAIN(tst_Theme)
#include "tst_theme.moc"
