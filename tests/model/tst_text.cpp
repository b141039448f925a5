#include "model/text.h"

#include <QTest>

// The UTF-8 trim matches its byte patterns by hand; every code point is checked here against
// Qt's own Unicode tables, so a space separator added to Unicode, or a byte pattern that matches
// too much, shows up.
class tst_Text : public QObject
{
    Q_OBJECT

private slots:
    void horizontalSpaceIsSpaceTabAndZs()
    {
        int spaces = 0;
        for (char32_t c = 0; c <= 0x10FFFF; ++c) {
            if (c >= 0xD800 && c <= 0xDFFF)
                continue;
            const bool expected = c == U'\t' || QChar::category(c) == QChar::Separator_Space;
            spaces += expected;
            QCOMPARE(isHorizontalSpace(c), expected);

            const QString text = QString::fromUcs4(&c, 1);
            const QByteArray utf8 = text.toUtf8();
            const QByteArray framed = utf8 + "x" + utf8;
            QCOMPARE(trimHorizontalUtf8(framed), expected ? QByteArrayView("x") : QByteArrayView(framed));
            const QString framedText = text + u'x' + text;
            QCOMPARE(trimHorizontal(framedText).size(), expected ? 1 : framedText.size());
        }
        QCOMPARE(spaces, 18); // tab and the 17 space separators of Unicode 15
    }

    void trimKeepsLineBreaksAndInvalidBytes()
    {
        QCOMPARE(trimHorizontal(u"\u00A0 \t a b\u3000\n\u2003"), QStringView(u"a b\u3000\n"));
        QCOMPARE(trimHorizontalUtf8("\r\n data \xC2"), QByteArrayView("\r\n data \xC2"));
        // A truncated U+3000 is no space; the whole one before it is.
        QCOMPARE(trimHorizontalUtf8("a\xE3\x80\x80\xE3\x80"), QByteArrayView("a\xE3\x80\x80\xE3\x80"));
        QCOMPARE(trimHorizontalUtf8(" \xE3\x80\x80"), QByteArrayView());
    }
};

QTEST_GUILESS_MAIN(tst_Text)
#include "tst_text.moc"
