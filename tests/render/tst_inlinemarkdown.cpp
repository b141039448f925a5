#include "render/inlinemarkdown.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Runs as "[flags]text" joined by "|": s strong, e emphasis, c code, x strike, @target a link.
// Empty or unmerged runs show up as extra "|[…]" parts.
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
        struct Row
        {
            const char *name;
            const char16_t *text;
            const char16_t *expected;
        };
        const Row rows[] = {
            {"empty", u"", u""},
            {"equal styles merge", u"**a**b**c** `x``y` [l](u)[l](u)", u"[s]a|[]b|[s]c|[] |[c]x``y|[] |[@u]ll"},
            // Emphasis and strong, the delimiter-run rules.
            {"intraword star", u"foo*bar*", u"[]foo|[e]bar"},
            {"intraword underscore stays", u"foo_bar_", u"[]foo_bar_"},
            {"punctuation around underscore", u"_(bar)_.", u"[e](bar)|[]."},
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
            {"punctuation flanking", u"*\"a\"* *\u00BFb?*", u"[e]\"a\"|[] |[e]\u00BFb?"},
            // Strikethrough.
            {"strike double and single", u"~~a~~ ~b~", u"[x]a|[] |[x]b"},
            {"strike lengths differ", u"~~a~", u"[]~~a~"},
            {"three tildes are text", u"~~~a~~~", u"[]~~~a~~~"},
            {"strike inside strong", u"**a ~~b~~**", u"[s]a |[sx]b"},
            // Code spans.
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
            // Autolinks; raw HTML stays text and hides its markup.
            {"uri autolink", u"<https://a.b/c?d=e>", u"[@https://a.b/c?d=e]https://a.b/c?d=e"},
            {"email autolink", u"<foo@bar.example.com>", u"[@mailto:foo@bar.example.com]foo@bar.example.com"},
            {"space breaks autolink", u"<http://a b>", u"[]<http://a b>"},
            {"backslash kept in autolink", u"<http://a\\b>", u"[@http://a\\b]http://a\\b"},
            {"script tag stays text", u"<script>alert(1)</script>", u"[]<script>alert(1)</script>"},
            {"markup inside a tag", u"<a href=\"*\" t='&amp;'>*x*</a>", u"[]<a href=\"*\" t='&amp;'>|[e]x|[]</a>"},
            {"code span before tag wins", u"`<a href=\"`\">`", u"[c]<a href=\"|[]\">`"},
            {"comment stays literal", u"<!-- *a* --> *b*", u"[]<!-- *a* --> |[e]b"},
            {"processing instruction and cdata", u"<?x *a* ?><![CDATA[*b*]]>", u"[]<?x *a* ?><![CDATA[*b*]]>"},
            {"not a tag", u"<33> <a h*=\"x\"> *c*", u"[]<33> <a h*=\"x\"> |[e]c"},
            {"unclosed comment is text", u"<!-- *a*", u"[]<!-- |[e]a"},
            // Block syntax is never interpreted; whitespace is kept exactly.
            {"heading and ordered markers", u"a\n# x\n1) y\n2. z", u"[]a\n# x\n1) y\n2. z"},
            {"bullets and quote", u"a\n- x\n+ y\n> q", u"[]a\n- x\n+ y\n> q"},
            {"thematic break and setext underlines", u"a\n***\nb\n---\nc\n===", u"[]a\n***\nb\n---\nc\n==="},
            {"tilde fence", u"a\n~~~\nb\n~~~", u"[]a\n~~~\nb\n~~~"},
            {"leading blanks and indented code", u"   lead\n    code\n\tmore", u"[]   lead\n    code\n\tmore"},
            {"html block", u"<div>\nx\n</div>", u"[]<div>\nx\n</div>"},
            {"table row", u"| a | b |", u"[]| a | b |"},
            {"link reference definition", u"[a]: /url", u"[][a]: /url"},
            {"blank runs and breaks kept", u"a   b  \n  c\t\nd", u"[]a   b  \n  c\t\nd"},
            {"lone surrogate passes through", u"a\xD800*b*", u"[]a\xD800|[e]b"},
        };
        for (const Row &row : rows)
            QTest::newRow(row.name) << QString::fromUtf16(row.text) << QString::fromUtf16(row.expected);
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
        QTest::newRow("file") << u"file:///etc/passwd"_s << false;
        QTest::newRow("javascript") << u"javascript:alert(1)"_s << false;
        QTest::newRow("relative") << u"/uri"_s << false;
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
