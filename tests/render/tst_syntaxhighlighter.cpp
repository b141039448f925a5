#include "render/languageprofile.h"
#include "render/syntaxhighlighter.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// One letter per UTF-16 unit: '-' base, k keyword, t type, n number, s string, c comment.
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
        struct Row
        {
            const char *name;
            const char16_t *language;
            const char16_t *code;
            const char16_t *expected;
        };
        const Row rows[] = {
            {"swift keyword number comment", u"swift", u"let x = 10 // ten", u"kkk-----nn-cccccc"},
            {"language is lower-cased", u"Swift", u"let x = 10 // ten", u"kkk-----nn-cccccc"},
            {"keywords are whole words", u"swift", u"letter inlet", u"------------"},
            {"keywords are case-sensitive", u"python", u"none None", u"-----kkkk"},
            {"hash in string turns comment", u"python", u"x = '#' # c", u"----scccccc"},
            {"keyword inside string", u"py", u"'if' if", u"ssss-kk"},
            {"types", u"rust", u"let v: Vec<i32>", u"kkk----ttt-ttt-"},
            {"numbers", nullptr, u"1_000.5 x2 1.5.3", u"nnnnnnn----nnn-n"},
            {"escaped quote inside string", nullptr, u"\"a\\\"b\" c", u"ssssss--"},
            {"escape does not cross a line", nullptr, u"\"a\\\nb\"", u"------"},
            {"double-quoted string spans lines", u"js", u"\"a\nb\"", u"sssss"},
            {"json words and quotes", u"json", u"true // 'a' null", u"kkkk----sss-kkkk"},
            {"backtick string in go", u"go", u"x := `a`", u"-----sss"},
            {"no backtick string in swift", u"swift", u"x := `a`", u"--------"},
            {"block comment over lines", u"js", u"/* a\nb */", u"ccccccccc"},
            {"block comment ends at first close", u"c", u"/* a */ 1 */", u"ccccccc-n---"},
            {"unclosed block comment", u"c", u"/* a\nint", u"-----kkk"},
            {"tag with blanks is generic", u"js title=x", u"function 'a' # c", u"---------sss-ccc"},
            {"absent language", nullptr, u"`x` \"y\" // z", u"sss-sss-cccc"},
            {"shell has no slash comments", u"sh", u"echo a//b # c", u"kkkk------ccc"},
            {"apostrophe in comment opens a string", u"swift", u"// it's\nlet a = 'b'", u"cccccccssssssssss--"},
            {"line comment stops at line separator", nullptr, u"// a\u2028b", u"cccc--"},
            {"line comment stops at carriage return", u"python", u"# a\r\nb", u"ccc---"},
            {"lone surrogate", nullptr, u"\xD800 1 \xDC00", u"--n--"},
            {"unicode digits are numbers", nullptr, u"\u0663\u0664", u"nn"},
        };
        for (const Row &row : rows) {
            const auto language = row.language ? std::optional(QString::fromUtf16(row.language)) : std::nullopt;
            QTest::newRow(row.name) << language << QString::fromUtf16(row.code) << QString::fromUtf16(row.expected);
        }
    }

    void highlighted()
    {
        QFETCH(std::optional<QString>, language);
        QFETCH(QString, code);
        QFETCH(QString, expected);
        QCOMPARE(mask(SyntaxHighlighter::highlighted(code, language)), expected);
    }

    void highlighted_cachesByTagAsWrittenUntilAMissFindsOver200()
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
        for (int i = 3; i < 201; ++i)
            SyntaxHighlighter::highlighted(QString::number(i), u"go"_s);
        QCOMPARE(SyntaxHighlighter::cacheSize(), 201);
        QCOMPARE(mask(SyntaxHighlighter::highlighted(u"nil"_s, u"go"_s)), u"kkk"_s);
        QCOMPARE(SyntaxHighlighter::cacheSize(), 1);

        // A code block that grows as its reply streams: 2 MB of versions, not 201.
        QString growing;
        for (int version = 0; version < 40; ++version) {
            growing += QString(9000, u'x') + u" = 1\n"_s.repeated(200);
            SyntaxHighlighter::highlighted(growing, u"go"_s);
            QVERIFY(SyntaxHighlighter::cacheBytes() <= 2 * 1024 * 1024);
        }
        QVERIFY(SyntaxHighlighter::cacheSize() < 40);
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
