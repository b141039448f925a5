#include "render/inlinemarkdown.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Runs as "[flags]text" joined by "|": s strong, e emphasis, c code, x strike, @target a link.
QString describe(const QList<InlineRun> &runs)
{
    QStringList parts;
    for (const InlineRun &run : runs) {
        QString flags;
        if (run.strong)
            flags += u's';
        if (run.emphasis)
            flags += u'e';
        if (run.code)
            flags += u'c';
        if (run.strike)
            flags += u'x';
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
    void render_data();
    void render();
    void render_blockSyntaxStaysLiteral_data();
    void render_blockSyntaxStaysLiteral();
    void render_neverEmitsEmptyOrUnmergedRuns();
    void isOpenableLink_data();
    void isOpenableLink();
};

void TestInlineMarkdown::render_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    struct Row
    {
        const char *name;
        const char16_t *text;
        const char16_t *expected;
    };
    const Row rows[] = {
        // Emphasis and strong, the delimiter-run rules.
        {"emphasis", u"*foo bar*", u"[e]foo bar"},
        {"not left-flanking", u"a * foo bar*", u"[]a * foo bar*"},
        {"intraword star", u"foo*bar*", u"[]foo|[e]bar"},
        {"intraword underscore stays", u"foo_bar_", u"[]foo_bar_"},
        {"underscore emphasis", u"_foo bar_", u"[e]foo bar"},
        {"punctuation around underscore", u"_(bar)_.", u"[e](bar)|[]."},
        {"strong", u"**foo bar**", u"[s]foo bar"},
        {"strong underscore", u"__foo bar__", u"[s]foo bar"},
        {"nested emphasis in strong", u"**foo*bar*baz**", u"[s]foo|[se]bar|[s]baz"},
        {"rule of three", u"*foo**bar**baz*", u"[e]foo|[se]bar|[e]baz"},
        {"rule of three blocks match", u"*foo**bar*", u"[e]foo**bar"},
        {"triple", u"***strong emph***", u"[se]strong emph"},
        {"unbalanced opener left over", u"**foo*", u"[]*|[e]foo"},
        {"unbalanced closer left over", u"*foo**", u"[e]foo|[]*"},
        {"mixed delimiters do not match", u"*foo_", u"[]*foo_"},
        {"emphasis across line feed", u"*a\nb*", u"[e]a\nb"},
        {"spaces inside are not flanking", u"** a **", u"[]** a **"},
        {"punctuation flanking", u"*\"foo\"*", u"[e]\"foo\""},
        {"unicode punctuation flanking", u"*\u00BFfoo?*", u"[e]\u00BFfoo?"},
        // Strikethrough.
        {"strike double", u"~~gone~~", u"[x]gone"},
        {"strike single", u"~gone~", u"[x]gone"},
        {"strike lengths differ", u"~~a~", u"[]~~a~"},
        {"three tildes are text", u"~~~a~~~", u"[]~~~a~~~"},
        {"strike inside strong", u"**a ~~b~~**", u"[s]a |[sx]b"},
        // Code spans.
        {"code span", u"`foo`", u"[c]foo"},
        {"double backticks hold one", u"`` foo ` bar ``", u"[c]foo ` bar"},
        {"one space stripped each side", u"`  ``  `", u"[c] `` "},
        {"only spaces kept", u"`  `", u"[c]  "},
        {"no escapes inside code", u"`foo\\`bar`", u"[c]foo\\|[]bar`"},
        {"code beats emphasis", u"*foo`*`", u"[]*foo|[c]*"},
        {"unmatched run is text", u"```foo``", u"[]```foo``"},
        {"line feed kept in code", u"`a\nb`", u"[c]a\nb"},
        {"escaped opener", u"\\``x`", u"[]`|[c]x"},
        // Escapes and entities.
        {"escapes", u"\\*not emphasised\\* \\[x\\]", u"[]*not emphasised* [x]"},
        {"backslash before letter stays", u"\\a\\", u"[]\\a\\"},
        {"hard break backslash", u"a\\\nb", u"[]a\nb"},
        {"named entities", u"&amp; &copy; &ngE; &nosuch;", u"[]& \u00A9 \u2267\u0338 &nosuch;"},
        {"numeric entities", u"&#35; &#x41; &#0; &#1234567;", u"[]# A \uFFFD \uFFFD"},
        {"entity does not make emphasis", u"&#42;foo&#42;", u"[]*foo*"},
        // Links and images.
        {"inline link", u"[link](/uri \"title\")", u"[@/uri]link"},
        {"empty destination", u"[link]()", u"[@]link"},
        {"angle destination with space", u"[link](</my uri>)", u"[@/my uri]link"},
        {"space ends destination", u"[link](/my uri)", u"[][link](/my uri)"},
        {"balanced parentheses", u"[a](foo(and(bar)))", u"[@foo(and(bar))]a"},
        {"escapes and entities in destination", u"[a](foo\\)\\:&amp;)", u"[@foo):&]a"},
        {"emphasis inside link", u"[*a*](b)", u"[e@b]a"},
        {"link inside emphasis", u"*[a](b)*", u"[e@b]a"},
        {"emphasis cannot cross link", u"*[foo*](b)", u"[]*|[@b]foo*"},
        {"no link inside link", u"[a [b](c) d](e)", u"[][a |[@c]b|[] d](e)"},
        {"title over line break", u"[a](b\n't')", u"[@b]a"},
        {"reference style is text", u"[a][b]", u"[][a][b]"},
        {"image shows its text", u"![alt *x*](img.png)", u"[]alt |[e]x"},
        {"image inside link", u"[![i](s)](h)", u"[@h]i"},
        {"code in link text", u"[`]`](u)", u"[c@u]]"},
        // Autolinks; raw HTML stays text.
        {"uri autolink", u"<https://a.b/c?d=e>", u"[@https://a.b/c?d=e]https://a.b/c?d=e"},
        {"email autolink", u"<foo@bar.example.com>", u"[@mailto:foo@bar.example.com]foo@bar.example.com"},
        {"space breaks autolink", u"<http://a b>", u"[]<http://a b>"},
        {"backslash kept in autolink", u"<http://a\\b>", u"[@http://a\\b]http://a\\b"},
        {"html stays text", u"<b>bold</b>", u"[]<b>bold</b>"},
        {"script tag stays text", u"<script>alert(1)</script>", u"[]<script>alert(1)</script>"},
        {"markup inside a tag stays literal", u"<a href=\"*\" t='&amp;'>*x*</a>",
         u"[]<a href=\"*\" t='&amp;'>|[e]x|[]</a>"},
        {"code span before tag wins", u"`<a href=\"`\">`", u"[c]<a href=\"|[]\">`"},
        {"comment stays literal", u"<!-- *a* --> *b*", u"[]<!-- *a* --> |[e]b"},
        {"processing instruction and cdata", u"<?x *a* ?><![CDATA[*b*]]>", u"[]<?x *a* ?><![CDATA[*b*]]>"},
        {"not a tag", u"<33> <a h*=\"x\"> *c*", u"[]<33> <a h*=\"x\"> |[e]c"},
        {"unclosed comment is text", u"<!-- *a*", u"[]<!-- |[e]a"},
        // Whitespace is preserved exactly.
        {"blank runs and breaks kept", u"a   b  \n  c\t\nd", u"[]a   b  \n  c\t\nd"},
        {"lone surrogate passes through", u"a\xD800*b*", u"[]a\xD800|[e]b"},
    };
    for (const Row &row : rows)
        QTest::newRow(row.name) << QString::fromUtf16(row.text) << QString::fromUtf16(row.expected);
}

void TestInlineMarkdown::render()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);
    QCOMPARE(describe(InlineMarkdown::render(text)), expected);
}

void TestInlineMarkdown::render_blockSyntaxStaysLiteral_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("heading marker") << u"a\n# x"_s;
    QTest::newRow("ordered parenthesis") << u"a\n1) x"_s;
    QTest::newRow("ordered full stop") << u"a\n2. x"_s;
    QTest::newRow("bullet") << u"a\n- x\n+ y"_s;
    QTest::newRow("thematic break stars") << u"a\n***\nb"_s;
    QTest::newRow("setext underline") << u"a\n---"_s;
    QTest::newRow("setext equals") << u"a\n==="_s;
    QTest::newRow("tilde fence") << u"a\n~~~\nb\n~~~"_s;
    QTest::newRow("quote") << u"a\n> x"_s;
    QTest::newRow("indented code") << u"    code\n\tmore"_s;
    QTest::newRow("leading blanks") << u"   lead"_s;
    QTest::newRow("html block") << u"<div>\nx\n</div>"_s;
    QTest::newRow("table row") << u"| a | b |"_s;
    QTest::newRow("link reference definition") << u"[a]: /url"_s;
}

void TestInlineMarkdown::render_blockSyntaxStaysLiteral()
{
    QFETCH(QString, text);
    QCOMPARE(describe(InlineMarkdown::render(text)), u"[]"_s + text);
}

void TestInlineMarkdown::render_neverEmitsEmptyOrUnmergedRuns()
{
    const QList<InlineRun> runs = InlineMarkdown::render(u"**a**b**c** `x``y` [l](u)[l](u) ****"_s);
    QVERIFY(!runs.isEmpty());
    for (qsizetype i = 0; i < runs.size(); ++i) {
        QVERIFY(!runs[i].text.isEmpty());
        if (i > 0)
            QVERIFY(!runs[i].sameStyle(runs[i - 1]));
    }
    QVERIFY(InlineMarkdown::render(QString()).isEmpty());
}

void TestInlineMarkdown::isOpenableLink_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("openable");
    QTest::newRow("https") << u"https://example.com/a?b"_s << true;
    QTest::newRow("http upper case") << u"HTTP://EXAMPLE.COM"_s << true;
    QTest::newRow("mailto") << u"mailto:a@b.c"_s << true;
    QTest::newRow("file") << u"file:///etc/passwd"_s << false;
    QTest::newRow("javascript") << u"javascript:alert(1)"_s << false;
    QTest::newRow("data") << u"data:text/html,x"_s << false;
    QTest::newRow("relative") << u"/uri"_s << false;
    QTest::newRow("empty") << QString() << false;
    QTest::newRow("http without host") << u"http:foo"_s << false;
    QTest::newRow("empty mailto") << u"mailto:"_s << false;
}

void TestInlineMarkdown::isOpenableLink()
{
    QFETCH(QString, target);
    QFETCH(bool, openable);
    QCOMPARE(InlineMarkdown::isOpenableLink(target), openable);
}

QTEST_GUILESS_MAIN(TestInlineMarkdown)
#include "tst_inlinemarkdown.moc"
