#include "render/inlinemarkdown.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

// Pieces that exercise every rule: markers, fences, tables, delimiters, brackets, entities,
// autolinks, line endings, wide and broken UTF-16.
const QStringList &pieces()
{
    static const QStringList list =
        u"* ** _ __ ~ ~~ ` `` ``` [ ] ![ ]( ) ( < > &amp; &#x & ; \\ | |---| a word 42 1.5 \" ' // /* */ # http: @ "
        u"x.y let func \"title\" <a@b.c> <!-- --> </b>"_s.split(u' ') +
        QStringList{u"\n"_s,     u"\r\n"_s,   u" "_s,      u"  "_s,         u"\t"_s,    u"- "_s,
                    u"1. "_s,    u"# "_s,     u"> "_s,     u"<a "_s,        u"x=\""_s,  u"\u00A0"_s,
                    u"\u2028"_s, u"\xD800"_s, u"\xDC00"_s, u"\U0001F600"_s, u"\u0663"_s};
    return list;
}

// Up to 60 pieces in a row, drawn by random.
QString randomText(QRandomGenerator &random)
{
    const QStringList &list = pieces();
    QString text;
    for (int count = int(random.bounded(61)); count > 0; --count)
        text += list[int(random.bounded(qsizetype(list.size())))];
    return text;
}

const std::optional<QString> languages[] = {std::nullopt, u"swift"_s, u"python"_s, u"js"_s, u"go"_s,
                                            u"rust"_s,    u"sh"_s,    u"json"_s,   u"c"_s,  u"x y"_s};

// What must hold for any input, whatever it renders to.
bool checkAll(const QString &text)
{
    for (const MarkdownText::Block &block : MarkdownText::parse(text)) {
        const bool heading = block.kind == MarkdownText::Block::Kind::Heading;
        if (!text.contains(block.code) || !text.contains(block.text) ||
            (heading && (block.level < 1 || block.level > 6)))
            return false;
    }

    const QList<InlineRun> runs = InlineMarkdown::render(text);
    qsizetype total = 0;
    for (qsizetype i = 0; i < runs.size(); ++i) {
        if (runs[i].text.isEmpty() || (i > 0 && runs[i].sameStyle(runs[i - 1])))
            return false;
        total += runs[i].text.size();
    }
    if (total > text.size())
        return false;

    for (const auto &language : languages) {
        const StyledCode styled = SyntaxHighlighter::build(text, language);
        qsizetype next = 0;
        for (qsizetype i = 0; i < styled.runs.size(); ++i) {
            const ColorRun &run = styled.runs[i];
            if (run.start != next || run.length <= 0 || (i > 0 && run.color == styled.runs[i - 1].color))
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
    static const std::pair<QRegularExpression, CodeColor> passes[] = {
        {re(u"\\b\\d[\\d_]*(?:\\.\\d+)?\\b"), CodeColor::Number},
        {re(u"\"(?:\\\\.|[^\"\\\\])*\""), CodeColor::String},
        {re(u"'(?:\\\\.|[^'\\\\])*'"), CodeColor::String},
        {re(u"`(?:\\\\.|[^`\\\\])*`"), CodeColor::String},
        {re(u"#.*"), CodeColor::Comment},
        {re(u"//.*"), CodeColor::Comment},
        {re(u"/\\*[\\s\\S]*?\\*/"), CodeColor::Comment},
    };
    QString matchable = text;
    for (qsizetype i = 0; i < matchable.size(); ++i) {
        if (matchable[i].isHighSurrogate() && i + 1 < matchable.size() && matchable[i + 1].isLowSurrogate())
            ++i;
        else if (matchable[i].isSurrogate())
            matchable[i] = QChar::ReplacementCharacter;
    }
    QList<CodeColor> result(text.size(), CodeColor::Base);
    for (const auto &[pattern, color] : passes) {
        QRegularExpressionMatchIterator it = pattern.globalMatch(matchable);
        while (it.hasNext()) {
            const QRegularExpressionMatch match = it.next();
            std::fill(result.begin() + match.capturedStart(), result.begin() + match.capturedEnd(), color);
        }
    }
    return result;
}

} // namespace

// Random and hostile inputs: nothing may crash, hang or break the invariants of the three
// renderers. Seeds are fixed so that a failure reproduces.
class TestRenderRandomized final : public QObject
{
    Q_OBJECT

private slots:
    void randomPieces_data()
    {
        QTest::addColumn<quint32>("seed");
        for (quint32 seed : {1u, 7u, 42u, 2024u, 90210u})
            QTest::newRow(qPrintable(QString::number(seed))) << seed;
    }
    // Besides the invariants, the generic highlighting must equal its patterns run one by one.
    void randomPieces()
    {
        QFETCH(quint32, seed);
        QRandomGenerator random(seed);
        for (int i = 0; i < 300; ++i) {
            const QString text = randomText(random);
            const QByteArray shown = text.toUtf8().toPercentEncoding();
            QVERIFY2(checkAll(text), shown.constData());
            const StyledCode styled = SyntaxHighlighter::build(text, std::nullopt);
            QList<CodeColor> colors(text.size());
            for (qsizetype k = 0; k < text.size(); ++k)
                colors[k] = styled.colorAt(k);
            QVERIFY2(colors == patternColors(text), shown.constData());
        }
    }

    // Code coloured as it streams in, a few units at a time, must at every step read as the same
    // code coloured whole: a string or comment closing far back, a keyword completed, a surrogate
    // pair or an escape split between two updates.
    void growingHighlight()
    {
        QFETCH(quint32, seed);
        QRandomGenerator random(seed);
        for (int i = 0; i < 60; ++i) {
            const QString text = randomText(random);
            for (const std::optional<QString> &language : {std::optional<QString>(), std::optional(u"python"_s),
                                                           std::optional(u"js"_s), std::optional(u"rust"_s)}) {
                GrowingHighlighter growing(language);
                for (qsizetype end = 0; end < text.size();) {
                    end = std::min(text.size(), end + 1 + qsizetype(random.bounded(6)));
                    const QString prefix = text.first(end);
                    const QByteArray shown = prefix.toUtf8().toPercentEncoding();
                    QVERIFY2(growing.highlight(prefix).runs == SyntaxHighlighter::build(prefix, language).runs,
                             shown.constData());
                }
            }
        }
    }

    void growingHighlight_data() { randomPieces_data(); }

    void hostileInputs_data()
    {
        QTest::addColumn<QString>("text");
        QString growingTicks;
        for (int i = 1; i < 400; ++i)
            growingTicks += u"`"_s.repeated(i) + u'a';
        QTest::newRow("100000 backticks") << u"`"_s.repeated(100000);
        QTest::newRow("growing backtick runs") << growingTicks;
        QTest::newRow("deep emphasis") << u"*a "_s.repeated(30000) + u" a*"_s.repeated(30000);
        QTest::newRow("unmatched openers") << u"*_~a"_s.repeated(30000);
        QTest::newRow("long delimiter runs") << u"*"_s.repeated(50000) + u'a' + u"*"_s.repeated(49999);
        QTest::newRow("nested brackets") << u"["_s.repeated(50000) + u"](x)"_s.repeated(50000);
        QTest::newRow("unclosed link tails") << u"[a](<b"_s.repeated(20000);
        QTest::newRow("unclosed titles") << u"[a](b \"c"_s.repeated(20000);
        QTest::newRow("links after open brackets") << u"["_s.repeated(20000) + u"[a](b)"_s.repeated(20000);
        QTest::newRow("images after open brackets") << u"!["_s.repeated(20000) + u"[a](b)"_s.repeated(20000);
        QTest::newRow("autolink starts") << u"<a:"_s.repeated(30000) + u"<a@"_s.repeated(30000);
        QTest::newRow("unclosed html") << u"<!--<?<![CDATA[<!X<a x=\"<a y='"_s.repeated(10000);
        QTest::newRow("entity starts") << u"&#x1"_s.repeated(30000);
        QTest::newRow("unclosed block comments") << u"*/"_s + u"/*"_s.repeated(50000);
        QTest::newRow("unterminated string") << u"\""_s + u"a\\\""_s.repeated(50000);
        QTest::newRow("unbalanced fences") << u"```\n# a\n| b |\n|-|\n"_s.repeated(5000) + u"```js"_s;
        QTest::newRow("long table") << u"a|b\n-|-\n"_s + u"|x|y|z|\n"_s.repeated(20000);
        QTest::newRow("lone surrogates") << u"\xD800*\xDC00_`"_s.repeated(20000);
        // What a hostile server sends as a reply.
        const QString mega(1 << 20, u'x');
        QTest::newRow("1 MB line") << mega;
        QTest::newRow("1 MB heading") << u"# "_s + mega;
        QTest::newRow("huge word in a paragraph") << u"a few words "_s + mega + u" more words"_s;
        QTest::newRow("100,000 code lines") << u"```js\n"_s + u"let x = 1; // one\n"_s.repeated(100000) + u"```"_s;
        QTest::newRow("2,000 columns") << u"|c"_s.repeated(2000) + u"|\n"_s + u"|-"_s.repeated(2000) + u"|\n"_s +
                                              u"|x"_s.repeated(2000) + u"|\n"_s;
        QTest::newRow("1 MB cell") << u"| a | b |\n|---|---|\n| "_s + mega + u" | b |"_s;
        QTest::newRow("10,000 nested quotes") << u">"_s.repeated(10000) + u" deep"_s;
    }
    // Linear work on any input: a budget per input far above what it takes, far below what a
    // cost that grows with the square of the length would.
    void hostileInputs()
    {
        QFETCH(QString, text);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(checkAll(text));
        QVERIFY2(timer.elapsed() < 30000, qPrintable(QString::number(timer.elapsed())));
    }
};

QTEST_GUILESS_MAIN(TestRenderRandomized)
#include "tst_renderrandomized.moc"
