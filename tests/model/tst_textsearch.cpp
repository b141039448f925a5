#include "model/textsearch.h"

#include <QTest>

using namespace Qt::StringLiterals;
using TextSearch::Query;
using TextSearch::Range;

class tst_TextSearch final : public QObject
{
    Q_OBJECT

private slots:
    void matching_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("matches");
        QTest::newRow("case") << u"HELLO"_s << u"say hello there"_s << true;
        QTest::newRow("accent in the text") << u"cafe"_s << u"Le Café du coin"_s << true;
        QTest::newRow("accent in the query") << u"café"_s << u"CAFE au lait"_s << true;
        QTest::newRow("sharp s needs no expansion") << u"strasse"_s << u"Straße"_s << false;
        QTest::newRow("sharp s finds itself") << u"STRAßE"_s << u"straße"_s << true;
        QTest::newRow("greek final sigma") << u"ΟΔΟΣ"_s << u"οδος"_s << true;
        QTest::newRow("full-width letters") << u"full"_s << u"ＦＵＬＬ width"_s << true;
        QTest::newRow("every word somewhere") << u"memory latency"_s << u"latency of the memory"_s << true;
        QTest::newRow("one word missing") << u"memory latency"_s << u"memory only"_s << false;
        QTest::newRow("words are substrings") << u"stream"_s << u"streaming"_s << true;
        QTest::newRow("emoji") << u"😀"_s << u"smile 😀 ok"_s << true;
        QTest::newRow("white space only is no query") << u" \t\n"_s << u"anything"_s << false;
    }
    void matching()
    {
        QFETCH(QString, typed);
        QFETCH(QString, text);
        QFETCH(bool, matches);
        const QString folded = TextSearch::folded(text);
        QCOMPARE(folded.size(), text.size()); // positions carry over to the shown text
        QCOMPARE(Query(typed).matchesAll(folded), matches);
    }

    void hits_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QList<Range>>("hits");

        QTest::newRow("every occurrence") << u"ab"_s << u"ab ab xab"_s << QList<Range>{{0, 2}, {3, 2}, {7, 2}};
        QTest::newRow("overlapping words merge") << u"abc cde"_s << u"xabcdex"_s << QList<Range>{{1, 5}};
        QTest::newRow("word inside another counts once") << u"memo memory"_s << u"memory"_s << QList<Range>{{0, 6}};
        QTest::newRow("accented hit keeps its place") << u"naive"_s << u"a naïve one"_s << QList<Range>{{2, 5}};
        QTest::newRow("no hit") << u"zzz"_s << u"abc"_s << QList<Range>{};
        QTest::newRow("touching hits of one word merge") << u"t"_s << u"ttx t"_s << QList<Range>{{0, 2}, {4, 1}};
        QTest::newRow("first unit found, the rest not") << u"abc"_s << u"ab abd abc"_s << QList<Range>{{7, 3}};
        QTest::newRow("word at the very end") << u"xyz"_s << u"axyz"_s << QList<Range>{{1, 3}};
        QTest::newRow("text shorter than the word") << u"abcd"_s << u"abc"_s << QList<Range>{};
        QTest::newRow("hits across eight-unit steps and at the end")
            << u"xyz"_s << u"aaaaaaaxyzaaaaaaxyzaxyz"_s << QList<Range>{{7, 3}, {16, 3}, {20, 3}};
        QTest::newRow("long word, first and last units alone do not make a hit")
            << u"abcdefghij"_s << u"---abcdefghij---abcXefghij-abcdefghi"_s << QList<Range>{{3, 10}};
        QTest::newRow("places overlapping a hit are not hits")
            << u"aa"_s << u"aaaaa aaa"_s << QList<Range>{{0, 4}, {6, 2}};
        QTest::newRow("long word overlapping its own hit is not found again")
            << u"abcabcabca"_s << u"xabcabcabcabcabcabca"_s << QList<Range>{{1, 10}};
        QList<Range> many;
        for (qsizetype at = 0; at < 300; ++at)
            many.append({2 * at, 1});
        QTest::newRow("hundreds of places") << u"t"_s << u"t "_s.repeated(300) << many;
        QTest::newRow("hundreds of touching places") << u"t"_s << u"t"_s.repeated(300) << QList<Range>{{0, 300}};
        QTest::newRow("hundreds of places, two words")
            << u"t x"_s << u"t "_s.repeated(150) + u"x "_s.repeated(150) << many;
    }
    void hits()
    {
        QFETCH(QString, typed);
        QFETCH(QString, text);
        QFETCH(QList<Range>, hits);
        QCOMPARE(Query(typed).hits(TextSearch::folded(text)), hits);
    }
};

QTEST_GUILESS_MAIN(tst_TextSearch)
#include "tst_textsearch.moc"
