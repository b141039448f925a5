#include "model/json.h"
#include "render/markdowntext.h"
#include "rowfile.h"

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

// A block as data/blocks.rows writes it.
QString shortForm(const Block &block)
{
    switch (block.kind) {
    case Block::Kind::Paragraph:
        return u"p "_s + block.text;
    case Block::Kind::Heading:
        return u"h%1 "_s.arg(block.level) + block.text;
    case Block::Kind::Bullet:
        return u"b "_s + block.text;
    case Block::Kind::Ordered:
        return u"o%1 "_s.arg(block.number) + block.text;
    case Block::Kind::Quote:
        return u"q "_s + block.text;
    case Block::Kind::Code:
        return (block.language ? u"code["_s + *block.language + u"] "_s : u"code "_s) + block.code;
    case Block::Kind::Table:
        break;
    }
    QStringList rows{block.headers.join(u'|')};
    for (const QStringList &row : block.rows)
        rows.append(row.join(u'|'));
    return u"table "_s + rows.join(u'/');
}

} // namespace

class TestMarkdownText final : public QObject
{
    Q_OBJECT

private slots:
    // Short rules from a row file; whole replies from golden files, each <case>.md with its
    // blocks in <case>.json in the form verbolt-inspect prints.
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected"); // one block per line
        QTest::addColumn<bool>("golden");
        const QList<QStringList> rows = readRowFile(QStringLiteral(VERBOLT_TEST_DATA "/blocks.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows) {
            QVERIFY2(row.size() >= 2, qPrintable(row.first()));
            QTest::newRow(qPrintable(row.first())) << row[1] << row.mid(2).join(u'\n') << false;
        }
        const auto read = [](const QString &path) {
            QFile file(path);
            return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        };
        const QDir dir(QStringLiteral(VERBOLT_TEST_DATA "/blocks"));
        const QStringList inputs = dir.entryList({u"*.md"_s}, QDir::Files, QDir::Name);
        QVERIFY(!inputs.isEmpty());
        for (const QString &name : inputs) {
            const QString path = dir.filePath(name);
            QTest::newRow(qPrintable(name)) << read(path) << read(path.chopped(3) + u".json"_s).trimmed() << true;
        }
    }
    void parse()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QFETCH(bool, golden);
        const QList<Block> blocks = MarkdownText::parse(text);
        QStringList lines;
        for (const Block &block : blocks)
            lines.append(shortForm(block));
        QCOMPARE(golden ? describe(blocks) : lines.join(u'\n'), expected);
    }

    // A text streamed in a few characters at a time, parsed again from each resume point only,
    // reads as the whole text parsed at once, at every step.
    void resumedParse_matchesWholeParse_data() { parse_data(); }
    void resumedParse_matchesWholeParse()
    {
        QFETCH(QString, text);
        for (const qsizetype step : {1, 3}) {
            QList<Block> blocks;
            MarkdownText::ResumePoint resume;
            for (qsizetype end = step; end < text.size() + step; end += step) {
                const QStringView prefix = QStringView(text).first(std::min(end, text.size()));
                MarkdownText::ResumePoint tail;
                blocks.resize(resume.blocks);
                blocks += MarkdownText::parse(prefix.sliced(resume.offset), &tail);
                resume = {resume.offset + tail.offset, resume.blocks + tail.blocks};
                QVERIFY2(blocks == MarkdownText::parse(prefix), qPrintable(prefix.toString()));
            }
        }
    }

    // Each line both as a table row and as a candidate delimiter row.
    void tableLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QStringList>("cells");
        QTest::addColumn<bool>("separator");
        const QList<QStringList> rows = readRowFile(QStringLiteral(VERBOLT_TEST_DATA "/table.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows) {
            QVERIFY2(row.size() >= 4 && (row[2] == u"row" || row[2] == u"separator"), qPrintable(row.first()));
            QTest::newRow(qPrintable(row.first())) << row[1] << row.mid(3) << (row[2] == u"separator");
        }
    }
    void tableLine()
    {
        QFETCH(QString, line);
        QFETCH(QStringList, cells);
        QFETCH(bool, separator);
        QCOMPARE(MarkdownText::splitRow(line), cells);
        QCOMPARE(MarkdownText::isTableSeparator(line), separator);
    }

    void cachedParse_keepsEachTextUntilAMissFindsOver200OrOver2MB()
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

        // A long reply redrawn as it grows leaves near-copies of itself behind; the cache holds
        // 2 MB of them, not 201. A text larger than that alone is still kept, alone.
        QString reply = u"# Title\n\n"_s;
        for (int version = 0; version < 40; ++version) {
            reply += QString(5000, u'w') + u"\n- item\n"_s;
            MarkdownText::cachedParse(reply);
            QVERIFY(MarkdownText::cacheBytes() <= 2 * 1024 * 1024);
        }
        QVERIFY(MarkdownText::cacheSize() < 40);
        const QString huge(5 * 1024 * 1024, u'h');
        const QList<Block> whole = MarkdownText::cachedParse(huge);
        QCOMPARE(MarkdownText::cacheSize(), 1);
        QVERIFY(MarkdownText::cachedParse(huge).constData() == whole.constData());
    }
};

QTEST_GUILESS_MAIN(TestMarkdownText)
#include "tst_markdowntext.moc"
