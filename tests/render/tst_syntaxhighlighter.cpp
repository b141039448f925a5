#include "render/languageprofile.h"
#include "render/syntaxhighlighter.h"
#include "rowfile.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// One letter per UTF-16 unit, as data/highlight.rows writes them.
QString mask(const StyledCode &styled)
{
    static const char16_t letters[] = u"-ktnsc";
    QString out(styled.text.size(), u'?');
    for (const ColorRun &run : styled.runs) {
        for (qsizetype i = run.start; i < run.start + run.length && i < out.size(); ++i)
            out[i] = QChar(letters[int(run.color)]);
    }
    return out;
}

} // namespace

class TestSyntaxHighlighter final : public QObject
{
    Q_OBJECT

private slots:
    void highlighted_data()
    {
        QTest::addColumn<std::optional<QString>>("language");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("expected");
        const QList<QStringList> rows = readRowFile(QStringLiteral(VERBOLT_TEST_DATA "/highlight.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows) {
            const QString language = row.value(1);
            QTest::newRow(qPrintable(row.first())) << (language.isNull() ? std::nullopt : std::optional(language))
                                                   << row.value(2) << row.value(3, u"(no expected colours)"_s);
        }
        // JSON cannot carry a lone surrogate.
        QTest::newRow("lone surrogate") << std::optional<QString>() << u"\xD800 1 \xDC00"_s << u"--n--"_s;
    }
    void highlighted()
    {
        QFETCH(std::optional<QString>, language);
        QFETCH(QString, code);
        QFETCH(QString, expected);
        QCOMPARE(mask(SyntaxHighlighter::highlighted(code, language)), expected);
    }

    // When the cache empties is the memo cache's rule, checked with the block parser; here, what the
    // highlighter keys it by.
    void highlighted_cachesByTagAsWritten()
    {
        SyntaxHighlighter::clearCache();
        const QString code = u"let a = 1"_s;
        const StyledCode first = SyntaxHighlighter::highlighted(code, u"swift"_s);
        // A hit hands out the stored runs, not a fresh build.
        QVERIFY(SyntaxHighlighter::highlighted(code, u"swift"_s).runs.constData() == first.runs.constData());
        // The tag is not lower-cased in the key; an absent tag and the empty one share a key.
        SyntaxHighlighter::highlighted(code, u"Swift"_s);
        SyntaxHighlighter::highlighted(code, std::nullopt);
        SyntaxHighlighter::highlighted(code, QString());
        QCOMPARE(SyntaxHighlighter::cacheSize(), 3);
    }

    // Every name of a language gets that language's profile, distinct from the generic one that
    // any other tag gets (upper-case names and the empty tag too, as the lookup is exact).
    void profileNames_data()
    {
        QTest::addColumn<QString>("names");
        for (const char *names : {"swift", "python py", "javascript js typescript ts jsx tsx", "go golang", "rust rs",
                                  "bash sh shell zsh", "json", "java kotlin kt c cpp c++ csharp cs"})
            QTest::newRow(names) << QString::fromLatin1(names);
        QTest::newRow("generic") << u"cobol Swift  js\u00A0"_s;
    }
    void profileNames()
    {
        QFETCH(QString, names);
        const QStringList list = names.split(u' ');
        const LanguageProfile &p = LanguageProfile::profile(list.first());
        for (const QString &name : list)
            QVERIFY2(LanguageProfile::profile(name) == p, qPrintable(name));
        QCOMPARE(p == LanguageProfile::profile(std::nullopt), list.first() == u"cobol");
    }
};

QTEST_GUILESS_MAIN(TestSyntaxHighlighter)
#include "tst_syntaxhighlighter.moc"
