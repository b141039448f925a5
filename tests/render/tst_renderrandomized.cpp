#include "render/inlinemarkdown.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Pieces that exercise every rule: markers, fences, tables, delimiters, brackets, entities,
// autolinks, line endings, wide and broken UTF-16.
const QStringList &pieces()
{
    static const QStringList list = {
        u"*"_s,      u"**"_s,     u"_"_s,          u"__"_s,     u"~"_s,     u"~~"_s,   u"`"_s,         u"``"_s,
        u"```"_s,    u"["_s,      u"]"_s,          u"!["_s,     u"]("_s,    u")"_s,    u"("_s,         u"<"_s,
        u">"_s,      u"&amp;"_s,  u"&#x"_s,        u"&"_s,      u";"_s,     u"\\"_s,   u"\n"_s,        u"\r\n"_s,
        u" "_s,      u"  "_s,     u"\t"_s,         u"|"_s,      u"|---|"_s, u"- "_s,   u"1. "_s,       u"# "_s,
        u"> "_s,     u"a"_s,      u"word"_s,       u"42"_s,     u"1.5"_s,   u"\""_s,   u"'"_s,         u"//"_s,
        u"/*"_s,     u"*/"_s,     u"#"_s,          u"http:"_s,  u"@"_s,     u"x.y"_s,  u"\u00A0"_s,    u"\u2028"_s,
        u"\xD800"_s, u"\xDC00"_s, u"\U0001F600"_s, u"\u0663"_s, u"let"_s,   u"func"_s, u"\"title\""_s, u"<a@b.c>"_s,
        u"<a "_s,    u"x=\""_s,   u"<!--"_s,       u"-->"_s,    u"</b>"_s,
    };
    return list;
}

QString randomText(QRandomGenerator &random, int maxPieces)
{
    const QStringList &list = pieces();
    QString text;
    const int count = int(random.bounded(maxPieces + 1));
    for (int i = 0; i < count; ++i)
        text += list[int(random.bounded(qsizetype(list.size())))];
    return text;
}

QString repeated(const QString &piece, int times)
{
    QString out;
    out.reserve(piece.size() * times);
    for (int i = 0; i < times; ++i)
        out += piece;
    return out;
}

const std::optional<QString> languages[] = {std::nullopt, u"swift"_s, u"python"_s, u"js"_s, u"go"_s,
                                            u"rust"_s,    u"sh"_s,    u"json"_s,   u"c"_s,  u"x y"_s};

// What must hold for any input, whatever it renders to.
bool checkAll(const QString &text)
{
    const QList<MarkdownText::Block> blocks = MarkdownText::parse(text);
    for (const MarkdownText::Block &block : blocks) {
        if (block.kind == MarkdownText::Block::Kind::Code && !text.contains(block.code))
            return false;
        if (!text.contains(block.text))
            return false;
        if (block.kind == MarkdownText::Block::Kind::Heading && (block.level < 1 || block.level > 6))
            return false;
    }

    const QList<InlineRun> runs = InlineMarkdown::render(text);
    qsizetype total = 0;
    for (const InlineRun &run : runs) {
        if (run.text.isEmpty())
            return false;
        total += run.text.size();
    }
    if (total > text.size())
        return false;

    for (const auto &language : languages) {
        const StyledCode styled = SyntaxHighlighter::build(text, language);
        qsizetype next = 0;
        for (const ColorRun &run : styled.runs) {
            if (run.start != next || run.length <= 0)
                return false;
            next += run.length;
        }
        if (next != text.size() || styled.text != text)
            return false;
    }
    return true;
}

// The generic profile's passes straight from their patterns, with the matcher run over the
// whole text for each: what the highlighter's faster string and comment passes must equal.
QList<CodeColor> patternColors(const QString &text)
{
    const auto re = [](const char16_t *pattern) {
        return QRegularExpression(u"(*ANY)"_s + QString::fromUtf16(pattern),
                                  QRegularExpression::UseUnicodePropertiesOption);
    };
    static const QRegularExpression passes[] = {
        re(u"\\b\\d[\\d_]*(?:\\.\\d+)?\\b"),
        re(u"\"(?:\\\\.|[^\"\\\\])*\""),
        re(u"'(?:\\\\.|[^'\\\\])*'"),
        re(u"`(?:\\\\.|[^`\\\\])*`"),
        re(u"#.*"),
        re(u"//.*"),
        re(u"/\\*[\\s\\S]*?\\*/"),
    };
    static const CodeColor colors[] = {CodeColor::Number,  CodeColor::String,  CodeColor::String, CodeColor::String,
                                       CodeColor::Comment, CodeColor::Comment, CodeColor::Comment};
    QString matchable = text;
    for (qsizetype i = 0; i < matchable.size(); ++i) {
        if (matchable[i].isHighSurrogate() && i + 1 < matchable.size() && matchable[i + 1].isLowSurrogate())
            ++i;
        else if (matchable[i].isSurrogate())
            matchable[i] = QChar::ReplacementCharacter;
    }
    QList<CodeColor> result(text.size(), CodeColor::Base);
    for (int pass = 0; pass < 7; ++pass)
        SyntaxHighlighter::apply(passes[pass], colors[pass], matchable, result, 0, matchable.size());
    return result;
}

} // namespace

// Random and hostile inputs: nothing may crash, hang or break the invariants of the three
// renderers. Seeds are fixed so that a failure reproduces.
class TestRenderRandomized final : public QObject
{
    Q_OBJECT

private slots:
    void randomPieces_data();
    void randomPieces();
    void highlighterMatchesPatterns_data();
    void highlighterMatchesPatterns();
    void hostileInputs_data();
    void hostileInputs();
};

void TestRenderRandomized::randomPieces_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed : {1u, 7u, 42u, 2024u, 90210u})
        QTest::newRow(qPrintable(QString::number(seed))) << seed;
}

void TestRenderRandomized::randomPieces()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    for (int i = 0; i < 300; ++i) {
        const QString text = randomText(random, 60);
        if (!checkAll(text))
            QFAIL(QByteArray("invariant broken for: " + text.toUtf8().toPercentEncoding()).constData());
    }
}

void TestRenderRandomized::highlighterMatchesPatterns_data()
{
    randomPieces_data();
}

void TestRenderRandomized::highlighterMatchesPatterns()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    for (int i = 0; i < 300; ++i) {
        const QString text = randomText(random, 40);
        const StyledCode styled = SyntaxHighlighter::build(text, std::nullopt);
        const QList<CodeColor> expected = patternColors(text);
        for (qsizetype k = 0; k < text.size(); ++k) {
            if (styled.colorAt(k) != expected[k])
                QFAIL(QByteArray("colours differ at " + QByteArray::number(k) +
                                 " in: " + text.toUtf8().toPercentEncoding())
                          .constData());
        }
    }
}

void TestRenderRandomized::hostileInputs_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("100000 backticks") << repeated(u"`"_s, 100000);
    QTest::newRow("growing backtick runs") << [] {
        QString s;
        for (int i = 1; i < 400; ++i)
            s += repeated(u"`"_s, i) + u"a"_s;
        return s;
    }();
    QTest::newRow("deep emphasis") << repeated(u"*a "_s, 30000) + repeated(u" a*"_s, 30000);
    QTest::newRow("unmatched openers") << repeated(u"*_~a"_s, 30000);
    QTest::newRow("long delimiter runs") << repeated(u"*"_s, 50000) + u"a"_s + repeated(u"*"_s, 49999);
    QTest::newRow("nested brackets") << repeated(u"["_s, 50000) + repeated(u"](x)"_s, 50000);
    QTest::newRow("unclosed link tails") << repeated(u"[a](<b"_s, 20000);
    QTest::newRow("unclosed titles") << repeated(u"[a](b \"c"_s, 20000);
    QTest::newRow("links after open brackets") << repeated(u"["_s, 20000) + repeated(u"[a](b)"_s, 20000);
    QTest::newRow("images after open brackets") << repeated(u"!["_s, 20000) + repeated(u"[a](b)"_s, 20000);
    QTest::newRow("autolink starts") << repeated(u"<a:"_s, 30000) + repeated(u"<a@"_s, 30000);
    QTest::newRow("unclosed html") << repeated(u"<!--<?<![CDATA[<!X<a x=\"<a y='"_s, 10000);
    QTest::newRow("entity starts") << repeated(u"&#x1"_s, 30000);
    QTest::newRow("unclosed block comments") << u"*/"_s + repeated(u"/*"_s, 50000);
    QTest::newRow("unterminated string") << u"\""_s + repeated(u"a\\\""_s, 50000);
    QTest::newRow("unbalanced fences") << repeated(u"```\n# a\n| b |\n|-|\n"_s, 5000) + u"```js"_s;
    QTest::newRow("long table") << u"a|b\n-|-\n"_s + repeated(u"|x|y|z|\n"_s, 20000);
    QTest::newRow("lone surrogates") << repeated(u"\xD800*\xDC00_`"_s, 20000);
    QTest::newRow("long line comment") << u"# "_s + repeated(u"x"_s, 200000);
}

void TestRenderRandomized::hostileInputs()
{
    QFETCH(QString, text);
    QVERIFY(checkAll(text));
}

QTEST_GUILESS_MAIN(TestRenderRandomized)
#include "tst_renderrandomized.moc"
