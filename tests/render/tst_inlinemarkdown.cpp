#include "render/inlinemarkdown.h"
#include "rowfile.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Runs as data/inline.rows writes them.
QString describe(const QList<InlineRun> &runs)
{
    QStringList parts;
    for (const InlineRun &run : runs) {
        QString flags;
        for (const auto &[on, letter] : {std::pair{run.strong, u's'}, std::pair{run.emphasis, u'e'},
                                         std::pair{run.code, u'c'}, std::pair{run.strike, u'x'}}) {
            if (on)
                flags += letter;
        }
        if (run.link)
            flags += u'@' + *run.link;
        parts.append(u'[' + flags + u']' + run.text);
    }
    return parts.join(u'|');
}

} // namespace

class TestInlineMarkdown final : public QObject
{
    Q_OBJECT

private slots:
    void render_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        const QList<QStringList> rows = readRowFile(QStringLiteral(VERBOLT_TEST_DATA "/inline.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows)
            QTest::newRow(qPrintable(row.first())) << row.value(1) << row.value(2, u"(no expected runs)"_s);
        // JSON cannot carry a lone surrogate.
        QTest::newRow("lone surrogate passes through") << u"a\xD800*b*"_s << u"[]a\xD800|[e]b"_s;
    }
    void render()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(describe(InlineMarkdown::render(text)), expected);
    }

    void isOpenableLink_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("openable");
        QTest::newRow("https") << u"https://example.com/a?b"_s << true;
        QTest::newRow("http upper case") << u"HTTP://EXAMPLE.COM"_s << true;
        QTest::newRow("mailto") << u"mailto:a@b.c"_s << true;
        QTest::newRow("javascript") << u"javascript:alert(1)"_s << false;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("http without host") << u"http:foo"_s << false;
        QTest::newRow("empty mailto") << u"mailto:"_s << false;
    }
    void isOpenableLink()
    {
        QFETCH(QString, target);
        QFETCH(bool, openable);
        QCOMPARE(InlineMarkdown::isOpenableLink(target), openable);
    }
};

QTEST_GUILESS_MAIN(TestInlineMarkdown)
#include "tst_inlinemarkdown.moc"
