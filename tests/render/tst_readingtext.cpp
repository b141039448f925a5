#include "render/readingtext.h"

#include <QTest>

using namespace Qt::StringLiterals;

class tst_ReadingText final : public QObject
{
    Q_OBJECT

private slots:
    // A text reads as the views show it: no markup, bullets and numbers as drawn, links as their
    // text, table rows cut or padded to the header, code under its name.
    void markdownText_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QString>("shown");
        QTest::newRow("emphasis") << u"Show me **everything** and *more* ~~less~~ `x`"_s
                                  << u"Show me everything and more less x"_s;
        QTest::newRow("heading and lists")
            << u"# Title\n- one\n- two\n3. three\n> said"_s << u"Title\n• one\n• two\n3. three\nsaid"_s;
        QTest::newRow("link keeps its text only")
            << u"See [the docs](https://example.com/a) now"_s << u"See the docs now"_s;
        QTest::newRow("autolink is shown") << u"<https://example.com>"_s << u"https://example.com"_s;
        QTest::newRow("line break kept") << u"a\nb"_s << u"a\nb"_s;
        QTest::newRow("code with language")
            << u"```python\nprint(1)\n\nx = 2\n```"_s << u"Code, python\nprint(1)\n\nx = 2"_s;
        QTest::newRow("code without language") << u"```\nls\n```"_s << u"Code\nls"_s;
        QTest::newRow("table") << u"| A | **B** | C |\n|---|---|---|\n| 1 |\n| 1 | 2 | 3 | 4 | 5 |"_s
                               << u"A\tB\tC\n1\t\t\n1\t2\t3"_s;
        QTest::newRow("entities and escapes")
            << u"Fish &amp; chips \\*not emphasis\\*"_s << u"Fish & chips *not emphasis*"_s;
        QTest::newRow("blank") << u"   \n\n"_s << QString();
    }
    void markdownText()
    {
        QFETCH(QString, markdown);
        QFETCH(QString, shown);
        QCOMPARE(ReadingText::markdownText(markdown, 10'000), shown);
    }

    // A huge text is read only as far as the limit, at a line's end, and says it was cut.
    void markdownText_isBounded()
    {
        QString huge;
        for (int i = 0; i < 200'000; ++i)
            huge += u"**line** %1\n"_s.arg(i);
        const QString shown = ReadingText::markdownText(huge, 1000);
        QVERIFY(shown.size() <= 1001);
        QVERIFY(shown.endsWith(QChar(0x2026)));
        QVERIFY(shown.startsWith(u"line 0\nline 1"_s));
        QVERIFY(!shown.contains(u"**"_s));
    }

    void inlineText_links()
    {
        const ReadingText::Inline shown =
            ReadingText::inlineText(u"Go [**here** and *there*](https://a.test/x) or <me@b.test>"_s);
        QCOMPARE(shown.text, u"Go here and there or me@b.test"_s);
        const QList<ReadingText::Link> expected{{3, 14, u"https://a.test/x"_s}, {21, 9, u"mailto:me@b.test"_s}};
        QCOMPARE(shown.links, expected);
    }

    void spokenBlock_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QString>("spoken");
        QTest::newRow("code names its size") << u"```js\na\nb\n```"_s << u"Code, js, 2 lines."_s;
        QTest::newRow("one line") << u"```\na\n```"_s << u"Code, 1 line."_s;
        QTest::newRow("table names its size") << u"|a|b|\n|-|-|\n|1|2|"_s << u"Table, 2 columns, 1 row."_s;
        QTest::newRow("text reads as shown") << u"2. **two**"_s << u"2. two"_s;
    }
    void spokenBlock()
    {
        QFETCH(QString, markdown);
        QFETCH(QString, spoken);
        const QList<MarkdownText::Block> blocks = MarkdownText::parse(markdown);
        QCOMPARE(blocks.size(), 1);
        QCOMPARE(ReadingText::spokenBlock(blocks.first()), spoken);
    }

    void wordCount_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qsizetype>("words");
        QTest::newRow("empty") << QString() << qsizetype(0);
        QTest::newRow("blanks around") << u"  one\ttwo\nthree  "_s << qsizetype(3);
        QTest::newRow("no-break space separates") << u"a\u00a0b"_s << qsizetype(2);
        QTest::newRow("punctuation belongs to words") << u"Hello, world!"_s << qsizetype(2);
    }
    void wordCount()
    {
        QFETCH(QString, text);
        QFETCH(qsizetype, words);
        QCOMPARE(ReadingText::wordCount(text), words);
    }
};

QTEST_GUILESS_MAIN(tst_ReadingText)
#include "tst_readingtext.moc"
