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
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected"); // one block per line
        const auto s = [](const char16_t *t) { return QString::fromUtf16(t); };
        const auto p = [&](const char16_t *t) { return Block::paragraph(s(t)); };
        const auto h = [&](qint64 level, const char16_t *t) { return Block::heading(level, s(t)); };
        const auto o = [&](qint64 number, const char16_t *t) { return Block::ordered(number, s(t)); };
        const auto q = [&](const char16_t *t) { return Block::quote(s(t)); };
        const auto b = [&](const char16_t *t) { return Block::bullet(s(t)); };
        const auto t = [](QStringList headers, QList<QStringList> rows = {}) { return Block::table(headers, rows); };
        const auto code = [&](const char16_t *c, std::optional<QString> language = std::nullopt) {
            return Block::codeBlock(s(c), std::move(language));
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
            {"paragraph keeps indentation and trailing blanks", u"  indented  \nnext", {p(u"  indented  \nnext")}},
            {"heading ends paragraph", u"text\n# Title", {p(u"text"), h(1, u"Title")}},
            {"tab after hashes", u"###\tTab", {h(3, u"Tab")}},
            {"indented heading", u"   ## Indented", {h(2, u"Indented")}},
            {"closing hashes stay", u"## a ##", {h(2, u"a ##")}},
            {"line separator counts as blank after hashes", u"#\u2028x", {h(1, u"x")}},
            {"bullets", u"- a\n* b\n+ c", {b(u"a"), b(u"b"), b(u"c")}},
            {"dash without blank is text", u"-a", {p(u"-a")}},
            {"bare markers are text", u"-\n1.", {p(u"-\n1.")}},
            {"ordered", u"3. three", {o(3, u"three")}},
            {"ordered leading zeros", u"007. x", {o(7, u"x")}},
            {"ordered overflow becomes 1", u"99999999999999999999. big", {o(1, u"big")}},
            {"ordered largest 64-bit", u"9223372036854775807. max", {o(9223372036854775807LL, u"max")}},
            {"ordered non-ASCII digits become 1", u"\u0663. x", {o(1, u"x")}},
            {"ordered digits beyond the BMP", u"\U0001D7D1. x", {o(1, u"x")}},
            {"quote", u">quote", {q(u"quote")}},
            {"nested quote marks dropped", u"> > nested", {q(u"nested")}},
            {"empty quote", u">", {q(u"")}},
            {"quote keeps tab after marker", u">\tx", {q(u"\tx")}},
            {"fence with language", u"```js\nf(1)\n```", {code(u"f(1)", u"js"_s)}},
            {"fence language keeps blanks and backticks", u"````js title=x\n```", {code(u"", u"`js title=x"_s)}},
            {"bare fence alone", u"```", {code(u"")}},
            {"fence ends paragraph", u"p\n```\n  # x\n```  closing\nafter", {p(u"p"), code(u"  # x"), p(u"after")}},
            {"short row",
             u"| a | b |\n|-|:-:|\n|1|2|\n| 3 |\n\nz",
             {t({u"a"_s, u"b"_s}, {{u"1"_s, u"2"_s}, {u"3"_s}}), p(u"z")}},
            {"table without rows", u"a | b\n---", {t({u"a"_s, u"b"_s})}},
            {"pipe line without delimiter row", u"| a |\ntext", {p(u"| a |\ntext")}},
            {"table before bullet", u"- a | b\n---", {t({u"- a"_s, u"b"_s})}},
            {"line ending a table is examined again", u"a|b\n|-|\n# H", {t({u"a"_s, u"b"_s}), h(1, u"H")}},
            {"table ends paragraph", u"i\nx|y\n-|-\n1|2", {p(u"i"), t({u"x"_s, u"y"_s}, {{u"1"_s, u"2"_s}})}},
            {"no-break space is trimmed", u"\u00A0- a", {b(u"a")}},
        };
        for (const Row &row : rows)
            QTest::newRow(row.name) << s(row.text) << describe(row.expected);

        // Golden files: each <case>.md with its blocks in <case>.json.
        const auto read = [](const QString &path) {
            QFile file(path);
            return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        };
        const QDir dir(QStringLiteral(VERBOLT_TEST_DATA "/blocks"));
        const QStringList inputs = dir.entryList({u"*.md"_s}, QDir::Files, QDir::Name);
        QVERIFY(!inputs.isEmpty());
        for (const QString &name : inputs) {
            const QString path = dir.filePath(name);
            QTest::newRow(qPrintable(name)) << read(path) << read(path.chopped(3) + u".json"_s).trimmed();
        }
    }

    void parse()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(describe(MarkdownText::parse(text)), expected);
    }

    // Each line both as a table row and as a candidate delimiter row.
    void tableLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QStringList>("cells");
        QTest::addColumn<bool>("separator");
        const QString e;
        QTest::newRow("outer pipes") << u"| a | b |"_s << QStringList{u"a"_s, u"b"_s} << false;
        QTest::newRow("no outer pipes") << u"a|b"_s << QStringList{u"a"_s, u"b"_s} << false;
        QTest::newRow("empty middle cell") << u"| a || b |"_s << QStringList{u"a"_s, e, u"b"_s} << false;
        QTest::newRow("lone pipe") << u"|"_s << QStringList{e} << false;
        QTest::newRow("two pipes") << u"||"_s << QStringList{e} << false;
        QTest::newRow("only leading pipe removed once") << u"|| a"_s << QStringList{e, u"a"_s} << false;
        QTest::newRow("escaped pipe still splits") << u"a \\| b"_s << QStringList{u"a \\"_s, u"b"_s} << false;
        QTest::newRow("untrimmed line") << u"  \t| x |\u3000"_s << QStringList{u"x"_s} << false;
        QTest::newRow("empty") << u""_s << QStringList{e} << false;
        QTest::newRow("pipes and colons") << u"|---|:---:|"_s << QStringList{u"---"_s, u":---:"_s} << true;
        QTest::newRow("delimiter without outer pipes") << u"---|---"_s << QStringList{u"---"_s, u"---"_s} << true;
        QTest::newRow("spaced dashes") << u"- - -"_s << QStringList{u"- - -"_s} << true;
        QTest::newRow("single dash") << u"-"_s << QStringList{u"-"_s} << true;
        QTest::newRow("equals") << u"|===|"_s << QStringList{u"==="_s} << false;
        QTest::newRow("trailing word") << u"--- x"_s << QStringList{u"--- x"_s} << false;
        QTest::newRow("colon first without pipe") << u":---"_s << QStringList{u":---"_s} << false;
        QTest::newRow("pipe and colons no dash") << u"|:|"_s << QStringList{u":"_s} << false;
        QTest::newRow("tab inside") << u"|-\t-|"_s << QStringList{u"-\t-"_s} << false;
    }

    void tableLine()
    {
        QFETCH(QString, line);
        QFETCH(QStringList, cells);
        QFETCH(bool, separator);
        QCOMPARE(MarkdownText::splitRow(line), cells);
        QCOMPARE(MarkdownText::isTableSeparator(line), separator);
    }

    void cachedParse_keepsEachTextUntilAMissFindsOver200()
    {
        MarkdownText::clearCache();
        const QList<Block> first = MarkdownText::cachedParse(u"# a\nb"_s);
        QVERIFY(first == MarkdownText::parse(u"# a\nb"_s));
        // A hit hands out the stored list itself, not a fresh parse.
        QVERIFY(MarkdownText::cachedParse(u"# a\nb"_s).constData() == first.constData());
        for (int i = 1; i < 201; ++i)
            MarkdownText::cachedParse(QString::number(i));
        MarkdownText::cachedParse(u"7"_s); // hits never clear, however full
        QCOMPARE(MarkdownText::cacheSize(), 201);
        QCOMPARE(MarkdownText::cachedParse(u"new"_s), QList<Block>{Block::paragraph(u"new"_s)});
        QCOMPARE(MarkdownText::cacheSize(), 1);
        MarkdownText::cachedParse(u"7"_s);
        QCOMPARE(MarkdownText::cacheSize(), 2);
    }

    // A long reply redrawn as it grows leaves near-copies of itself behind; the cache holds
    // 2 MB of them, not 201. A text larger than that alone is still kept, alone.
    void cachedParse_boundedByBytesWhileAReplyGrows()
    {
        MarkdownText::clearCache();
        QString reply = u"# Title\n\n"_s;
        for (int version = 0; version < 40; ++version) {
            reply += QString(5000, u'w') + u"\n- item\n"_s;
            MarkdownText::cachedParse(reply);
            QVERIFY(MarkdownText::cacheBytes() <= 2 * 1024 * 1024);
        }
        QVERIFY(MarkdownText::cacheSize() < 40);
        const QString huge(5 * 1024 * 1024, u'h');
        const QList<Block> first = MarkdownText::cachedParse(huge);
        QCOMPARE(MarkdownText::cacheSize(), 1);
        QVERIFY(MarkdownText::cachedParse(huge).constData() == first.constData());
    }
};

QTEST_GUILESS_MAIN(TestMarkdownText)
#include "tst_markdowntext.moc"
