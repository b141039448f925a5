#include "model/json.h"
#include "render/markdowntext.h"

#include <QDir>
#include <QFile>
#include <QTest>

using Block = MarkdownText::Block;
using namespace Qt::StringLiterals;

namespace {

// One block per line, in the form verbolt-inspect prints.
QString describe(const QList<Block> &blocks)
{
    QStringList lines;
    for (const Block &block : blocks) {
        Json::Writer w(Json::WriteOptions{false, false, false});
        toJson(w, block);
        lines.append(QString::fromUtf8(w.data()));
    }
    return lines.join(u'\n');
}

} // namespace

class TestMarkdownText final : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void parse_goldenFiles_data();
    void parse_goldenFiles();
    void splitRow_data();
    void splitRow();
    void isTableSeparator_data();
    void isTableSeparator();
    void cachedParse_hitReturnsStoredBlocks();
    void cachedParse_clearsWholesaleAbove200();
};

void TestMarkdownText::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QList<Block>>("expected");

    const auto p = [](const char16_t *t) { return Block::paragraph(QString::fromUtf16(t)); };
    const auto code = [](const char16_t *c, std::optional<QString> language = std::nullopt) {
        return Block::codeBlock(QString::fromUtf16(c), std::move(language));
    };
    struct Row
    {
        const char *name;
        const char16_t *text;
        QList<Block> expected;
    };
    const Row rows[] = {
        {"empty", u"", {}},
        {"blank lines only", u"\n  \n\t\n", {}},
        {"paragraphs split by blank line", u"a\nb\n\nc", {p(u"a\nb"), p(u"c")}},
        {"paragraph keeps indentation and trailing blanks",
         u"  indented line  \nnext",
         {p(u"  indented line  \nnext")}},
        {"heading ends paragraph", u"text\n# Title", {p(u"text"), Block::heading(1, QStringLiteral("Title"))}},
        {"seven hashes are text", u"####### seven", {p(u"####### seven")}},
        {"tab after hashes", u"###\tTab", {Block::heading(3, QStringLiteral("Tab"))}},
        {"indented heading", u"   ## Indented", {Block::heading(2, QStringLiteral("Indented"))}},
        {"hash without blank is text", u"#tag", {p(u"#tag")}},
        {"closing hashes stay", u"## a ##", {Block::heading(2, QStringLiteral("a ##"))}},
        {"line separator counts as blank after hashes", u"#\u2028x", {Block::heading(1, QStringLiteral("x"))}},
        {"carriage return stays in heading text", u"# T\r\nx", {Block::heading(1, QStringLiteral("T\r")), p(u"x")}},
        {"bullets", u"- a\n* b\n+ c", {Block::bullet(u"a"_s), Block::bullet(u"b"_s), Block::bullet(u"c"_s)}},
        {"dash without blank is text", u"-a", {p(u"-a")}},
        {"bare markers are text", u"-\n1.", {p(u"-\n1.")}},
        {"ordered", u"3. three", {Block::ordered(3, u"three"_s)}},
        {"ordered leading zeros", u"007. x", {Block::ordered(7, u"x"_s)}},
        {"ordered overflow becomes 1", u"99999999999999999999. big", {Block::ordered(1, u"big"_s)}},
        {"ordered largest 64-bit", u"9223372036854775807. max", {Block::ordered(9223372036854775807LL, u"max"_s)}},
        {"ordered non-ASCII digits become 1", u"\u0663. x", {Block::ordered(1, u"x"_s)}},
        {"ordered digits beyond the BMP", u"\U0001D7D1. x", {Block::ordered(1, u"x"_s)}},
        {"parenthesis item is text", u"1) x", {p(u"1) x")}},
        {"quote", u">quote", {Block::quote(u"quote"_s)}},
        {"nested quote marks dropped", u"> > nested", {Block::quote(u"nested"_s)}},
        {"empty quote", u">", {Block::quote(QString())}},
        {"quote keeps tab after marker", u">\tx", {Block::quote(u"\tx"_s)}},
        {"fence with language", u"```js\nf(1)\n```", {code(u"f(1)", u"js"_s)}},
        {"fence language keeps blanks and backticks", u"````js title=x\n```", {code(u"", u"`js title=x"_s)}},
        {"unterminated fence runs to end", u"```\nx", {code(u"x")}},
        {"bare fence alone", u"```", {code(u"")}},
        {"fence lines unchanged",
         u"p\n```\n  # not heading\n\n| a |\n|---|\n```  trailing\nafter",
         {p(u"p"), code(u"  # not heading\n\n| a |\n|---|"), p(u"after")}},
        {"table with short row",
         u"| a | b |\n|---|:-:|\n| 1 | 2 |\n| 3 |\n\nafter",
         {Block::table({u"a"_s, u"b"_s}, {{u"1"_s, u"2"_s}, {u"3"_s}}), p(u"after")}},
        {"table without rows", u"a | b\n---", {Block::table({u"a"_s, u"b"_s}, {})}},
        {"pipe line without delimiter row", u"| a |\ntext", {p(u"| a |\ntext")}},
        {"table before bullet", u"- a | b\n---", {Block::table({u"- a"_s, u"b"_s}, {})}},
        {"line ending a table is examined again",
         u"a|b\n|-|\n# H",
         {Block::table({u"a"_s, u"b"_s}, {}), Block::heading(1, u"H"_s)}},
        {"table ends paragraph",
         u"intro\nx|y\n-|-\n1|2",
         {p(u"intro"), Block::table({u"x"_s, u"y"_s}, {{u"1"_s, u"2"_s}})}},
        {"no-break space is trimmed", u"\u00A0- a", {Block::bullet(u"a"_s)}},
    };
    for (const Row &row : rows)
        QTest::newRow(row.name) << QString::fromUtf16(row.text) << row.expected;
}

void TestMarkdownText::parse()
{
    QFETCH(QString, text);
    QFETCH(QList<Block>, expected);
    const QList<Block> blocks = MarkdownText::parse(text);
    QCOMPARE(describe(blocks), describe(expected));
    QVERIFY(blocks == expected);
}

void TestMarkdownText::parse_goldenFiles_data()
{
    QTest::addColumn<QString>("path");
    const QDir dir(QStringLiteral(VERBOLT_TEST_DATA "/blocks"));
    const QStringList inputs = dir.entryList({QStringLiteral("*.md")}, QDir::Files, QDir::Name);
    QVERIFY(!inputs.isEmpty());
    for (const QString &name : inputs)
        QTest::newRow(qPrintable(name)) << dir.filePath(name);
}

// Each <case>.md is parsed and compared with <case>.json: one block per line.
void TestMarkdownText::parse_goldenFiles()
{
    QFETCH(QString, path);
    QFile input(path);
    QVERIFY(input.open(QIODevice::ReadOnly));
    QFile expected(path.chopped(3) + QStringLiteral(".json"));
    QVERIFY(expected.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(input.readAll());
    QCOMPARE(describe(MarkdownText::parse(text)), QString::fromUtf8(expected.readAll()).trimmed());
}

void TestMarkdownText::splitRow_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("cells");
    QTest::newRow("outer pipes") << u"| a | b |"_s << QStringList{u"a"_s, u"b"_s};
    QTest::newRow("no outer pipes") << u"a|b"_s << QStringList{u"a"_s, u"b"_s};
    QTest::newRow("empty middle cell") << u"| a || b |"_s << QStringList{u"a"_s, QString(), u"b"_s};
    QTest::newRow("lone pipe") << u"|"_s << QStringList{QString()};
    QTest::newRow("two pipes") << u"||"_s << QStringList{QString()};
    QTest::newRow("escaped pipe still splits") << u"a \\| b"_s << QStringList{u"a \\"_s, u"b"_s};
    QTest::newRow("untrimmed line") << u"  \t| x |\u3000"_s << QStringList{u"x"_s};
    QTest::newRow("only leading pipe removed once") << u"|| a"_s << QStringList{QString(), u"a"_s};
}

void TestMarkdownText::splitRow()
{
    QFETCH(QString, line);
    QFETCH(QStringList, cells);
    QCOMPARE(MarkdownText::splitRow(line), cells);
}

void TestMarkdownText::isTableSeparator_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("separator");
    QTest::newRow("pipes and colons") << u"|---|:---:|"_s << true;
    QTest::newRow("no outer pipes") << u"---|---"_s << true;
    QTest::newRow("spaced dashes") << u"- - -"_s << true;
    QTest::newRow("single dash") << u"-"_s << true;
    QTest::newRow("no dash") << u"| a |"_s << false;
    QTest::newRow("equals") << u"|===|"_s << false;
    QTest::newRow("trailing word") << u"--- x"_s << false;
    QTest::newRow("colon first without pipe") << u":---"_s << false;
    QTest::newRow("pipe and colons no dash") << u"|:|"_s << false;
    QTest::newRow("tab inside") << u"|-\t-|"_s << false;
    QTest::newRow("empty") << QString() << false;
}

void TestMarkdownText::isTableSeparator()
{
    QFETCH(QString, line);
    QFETCH(bool, separator);
    QCOMPARE(MarkdownText::isTableSeparator(line), separator);
}

void TestMarkdownText::cachedParse_hitReturnsStoredBlocks()
{
    MarkdownText::clearCache();
    const QString text = u"# a\nb"_s;
    const QList<Block> first = MarkdownText::cachedParse(text);
    QCOMPARE(MarkdownText::cacheSize(), 1);
    const QList<Block> second = MarkdownText::cachedParse(text);
    QCOMPARE(MarkdownText::cacheSize(), 1);
    // A hit hands out the stored list itself, not a fresh parse.
    QVERIFY(first.constData() == second.constData());
    QVERIFY(first == MarkdownText::parse(text));
}

void TestMarkdownText::cachedParse_clearsWholesaleAbove200()
{
    MarkdownText::clearCache();
    for (int i = 0; i < 201; ++i)
        MarkdownText::cachedParse(QString::number(i));
    QCOMPARE(MarkdownText::cacheSize(), 201);
    // Hits never clear, however full.
    MarkdownText::cachedParse(u"7"_s);
    QCOMPARE(MarkdownText::cacheSize(), 201);
    const QList<Block> blocks = MarkdownText::cachedParse(u"new"_s);
    QCOMPARE(MarkdownText::cacheSize(), 1);
    QCOMPARE(blocks, QList<Block>{Block::paragraph(u"new"_s)});
    MarkdownText::cachedParse(u"7"_s);
    QCOMPARE(MarkdownText::cacheSize(), 2);
}

QTEST_GUILESS_MAIN(TestMarkdownText)
#include "tst_markdowntext.moc"
