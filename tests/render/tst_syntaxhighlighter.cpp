#include "render/languageprofile.h"
#include "render/syntaxhighlighter.h"

#include <QSet>
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

std::optional<QString> tag(const char16_t *language)
{
    return language ? std::optional<QString>(QString::fromUtf16(language)) : std::nullopt;
}

} // namespace

class TestSyntaxHighlighter final : public QObject
{
    Q_OBJECT

private slots:
    void highlighted_data();
    void highlighted();
    void highlighted_runsCoverTextOnceMerged();
    void highlighted_cacheKeyKeepsLanguageCase();
    void highlighted_clearsWholesaleAbove200();
    void profile_data();
    void profile();
};

void TestSyntaxHighlighter::highlighted_data()
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
        {"block comment for unknown language", u"brainfuck", u"/* a\nb */", u"ccccccccc"},
        {"block comment ends at first close", u"c", u"/* a */ 1 */", u"ccccccc-n---"},
        {"unclosed block comment", u"c", u"/* a\nint", u"-----kkk"},
        {"tag with blanks is generic", u"js title=x", u"function 'a' # c", u"---------sss-ccc"},
        {"absent language", nullptr, u"`x` \"y\" // z", u"sss-sss-cccc"},
        {"shell has no slash comments", u"sh", u"echo a//b # c", u"kkkk------ccc"},
        {"apostrophe in comment opens a string", u"swift", u"// it's\nlet a = 'b'",
         u"ccccccc"
         u"s"
         u"sssssssss"
         u"--"},
        {"line comment stops at line separator", nullptr, u"// a\u2028b", u"cccc--"},
        {"line comment stops at carriage return", u"python", u"# a\r\nb", u"ccc---"},
        {"lone surrogate", nullptr, u"\xD800 1 \xDC00", u"--n--"},
        {"unicode digits are numbers", nullptr, u"\u0663\u0664", u"nn"},
        {"empty", u"swift", u"", u""},
    };
    for (const Row &row : rows)
        QTest::newRow(row.name) << tag(row.language) << QString::fromUtf16(row.code)
                                << QString::fromUtf16(row.expected);
}

void TestSyntaxHighlighter::highlighted()
{
    QFETCH(std::optional<QString>, language);
    QFETCH(QString, code);
    QFETCH(QString, expected);
    const StyledCode styled = SyntaxHighlighter::highlighted(code, language);
    QCOMPARE(styled.text, code);
    QCOMPARE(mask(styled), expected);
}

void TestSyntaxHighlighter::highlighted_runsCoverTextOnceMerged()
{
    const QString code = u"func f() -> Int {\n    return 42 // answer\n}\n"_s;
    const StyledCode styled = SyntaxHighlighter::build(code, u"swift"_s);
    qsizetype next = 0;
    for (qsizetype i = 0; i < styled.runs.size(); ++i) {
        const ColorRun &run = styled.runs[i];
        QCOMPARE(run.start, next);
        QVERIFY(run.length > 0);
        if (i > 0)
            QVERIFY(run.color != styled.runs[i - 1].color);
        next = run.start + run.length;
    }
    QCOMPARE(next, code.size());
    QCOMPARE(styled.colorAt(code.indexOf(u"42")), CodeColor::Number);
    QCOMPARE(styled.colorAt(code.indexOf(u"Int")), CodeColor::Type);
    QCOMPARE(styled.colorAt(0), CodeColor::Keyword);
    QCOMPARE(styled.colorAt(code.size() - 1), CodeColor::Base);
}

void TestSyntaxHighlighter::highlighted_cacheKeyKeepsLanguageCase()
{
    SyntaxHighlighter::clearCache();
    const QString code = u"let a = 1"_s;
    const StyledCode lower = SyntaxHighlighter::highlighted(code, u"swift"_s);
    const StyledCode upper = SyntaxHighlighter::highlighted(code, u"Swift"_s);
    QCOMPARE(SyntaxHighlighter::cacheSize(), 2);
    QCOMPARE(upper.runs, lower.runs);
    // An absent language and the empty tag share the key "" + U+0001 + code.
    SyntaxHighlighter::highlighted(code, std::nullopt);
    SyntaxHighlighter::highlighted(code, QString());
    QCOMPARE(SyntaxHighlighter::cacheSize(), 3);
    SyntaxHighlighter::highlighted(code, u"swift"_s);
    QCOMPARE(SyntaxHighlighter::cacheSize(), 3);
}

void TestSyntaxHighlighter::highlighted_clearsWholesaleAbove200()
{
    SyntaxHighlighter::clearCache();
    for (int i = 0; i < 201; ++i)
        SyntaxHighlighter::highlighted(QString::number(i), u"go"_s);
    QCOMPARE(SyntaxHighlighter::cacheSize(), 201);
    const StyledCode styled = SyntaxHighlighter::highlighted(u"nil"_s, u"go"_s);
    QCOMPARE(SyntaxHighlighter::cacheSize(), 1);
    QCOMPARE(mask(styled), u"kkk"_s);
}

void TestSyntaxHighlighter::profile_data()
{
    QTest::addColumn<std::optional<QString>>("language");
    QTest::addColumn<int>("keywords");
    QTest::addColumn<int>("types");
    QTest::addColumn<QString>("firstAndLast");
    QTest::addColumn<QString>("switches"); // slash, hash, backtick as 0/1
    struct Row
    {
        const char16_t *language;
        int keywords;
        int types;
        const char16_t *firstAndLast;
        const char16_t *switches;
    };
    const Row rows[] = {
        {u"swift", 36, 10, u"func is String Text", u"100"},
        {u"python", 30, 0, u"def await", u"010"},
        {u"py", 30, 0, u"def await", u"010"},
        {u"javascript", 34, 0, u"function instanceof", u"101"},
        {u"tsx", 34, 0, u"function instanceof", u"101"},
        {u"golang", 23, 7, u"func false string byte", u"101"},
        {u"rs", 23, 10, u"fn false String Result", u"100"},
        {u"zsh", 17, 0, u"if return", u"010"},
        {u"json", 3, 0, u"true null", u"000"},
        {u"c++", 30, 7, u"public var String Map", u"100"},
        {u"cs", 30, 7, u"public var String Map", u"100"},
        {u"Swift", 0, 0, u"", u"111"},
        {u"", 0, 0, u"", u"111"},
        {nullptr, 0, 0, u"", u"111"},
    };
    for (const Row &row : rows) {
        QTest::newRow(row.language ? QString::fromUtf16(row.language).toUtf8().constData() : "absent")
            << tag(row.language) << row.keywords << row.types << QString::fromUtf16(row.firstAndLast)
            << QString::fromUtf16(row.switches);
    }
}

void TestSyntaxHighlighter::profile()
{
    QFETCH(std::optional<QString>, language);
    QFETCH(int, keywords);
    QFETCH(int, types);
    QFETCH(QString, firstAndLast);
    QFETCH(QString, switches);
    const LanguageProfile &p = LanguageProfile::profile(language);
    QCOMPARE(p.keywords.size(), keywords);
    QCOMPARE(p.types.size(), types);
    QStringList ends;
    for (const QStringList *list : {&p.keywords, &p.types}) {
        if (!list->isEmpty())
            ends << list->first() << list->last();
    }
    QCOMPARE(ends.join(u' '), firstAndLast);
    const QString actual = QString::number(int(p.slashComments)) + QString::number(int(p.hashComments)) +
                           QString::number(int(p.backtickStrings));
    QCOMPARE(actual, switches);
    // Words never repeat within a list.
    QCOMPARE(QSet<QString>(p.keywords.cbegin(), p.keywords.cend()).size(), p.keywords.size());
}

QTEST_GUILESS_MAIN(TestSyntaxHighlighter)
#include "tst_syntaxhighlighter.moc"
