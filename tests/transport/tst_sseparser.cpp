#include "rowfile.h"
#include "transport/chatservice.h"

#include <QRandomGenerator>
#include <QTest>

using Parsed = ChatService::Parsed;
using Kind = ChatService::Parsed::Kind;
using namespace Qt::StringLiterals;

namespace {

// A row file's expectation: skip, done, "delta <text>" or "usage <prompt> <completion> <total>".
Parsed expectation(const QString &text)
{
    if (text == u"done")
        return {Kind::done, {}, {}};
    if (text.startsWith(u"delta "))
        return {Kind::delta, text.mid(6), {}};
    const QStringList counts = text.split(u' ');
    if (counts.size() != 4 || counts[0] != u"usage")
        return {};
    const auto count = [](const QString &n) { return n == u"-" ? std::nullopt : std::optional(n.toLongLong()); };
    return {Kind::usage, {}, {count(counts[1]), count(counts[2]), count(counts[3])}};
}

} // namespace

class tst_SseParser : public QObject
{
    Q_OBJECT

private slots:
    void classify_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<int>("wire");
        QTest::addColumn<Parsed>("expected");
        const QList<QStringList> rows = readRowFile(QStringLiteral(VERBOLT_TEST_DATA "/sse.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows) {
            QVERIFY2(row.size() == 4, qPrintable(row.first()));
            for (const auto &[wire, name] :
                 {std::pair{ProviderWire::openAI, u"openAI"_s}, {ProviderWire::anthropic, u"anthropic"_s}}) {
                if (row.value(1) == name || row.value(1) == u"both")
                    QTest::addRow("%s: %s", qPrintable(name), qPrintable(row.first()))
                        << row.value(2).toUtf8() << int(wire) << expectation(row.value(3));
            }
        }
        // JSON cannot carry bytes that are not UTF-8.
        for (const int wire : {0, 1})
            QTest::addRow("invalid utf-8 %d", wire)
                << QByteArray("data: {\"type\":\"content_block_delta\",\"delta\":{\"text\":\"\xff\"},"
                              "\"choices\":[{\"delta\":{\"content\":\"\xff\"}}]}")
                << wire << Parsed();
    }
    void classify()
    {
        QFETCH(QByteArray, line);
        QFETCH(int, wire);
        QFETCH(Parsed, expected);
        const Parsed parsed = ChatService::parseSSELine(QByteArrayView(line), ProviderWire(wire));
        QCOMPARE(int(parsed.kind), int(expected.kind));
        QCOMPARE(parsed.text, expected.text);
        QCOMPARE(parsed.usage, expected.usage);

        // The text overload agrees wherever the bytes are valid UTF-8.
        const QString text = QString::fromUtf8(line);
        if (text.toUtf8() == line)
            QCOMPARE(ChatService::parseSSELine(QStringView(text), ProviderWire(wire)), parsed);
    }

    void randomBytesNeverFail()
    {
        // Mutations of real lines: whatever comes out, the parser answers without crashing.
        const QList<QByteArray> seeds{
            R"(data: {"choices":[{"delta":{"content":"Hi"}}],"usage":{"prompt_tokens":1}})",
            R"(data: {"type":"message_start","message":{"usage":{"input_tokens":25}}})",
            R"(data: {"type":"content_block_delta","delta":{"text":"x"}})",
        };
        QRandomGenerator rng(7);
        int deltas = 0;
        for (int i = 0; i < 20000; ++i) {
            QByteArray line = seeds[i % seeds.size()];
            const int edits = 1 + int(rng.bounded(4));
            for (int e = 0; e < edits; ++e)
                line[rng.bounded(int(line.size()))] = char(rng.bounded(256));
            for (const auto wire : {ProviderWire::openAI, ProviderWire::anthropic}) {
                if (ChatService::parseSSELine(QByteArrayView(line), wire).kind == Kind::delta)
                    ++deltas;
            }
        }
        QVERIFY(deltas > 0); // some mutations leave the payload intact
    }
};

QTEST_GUILESS_MAIN(tst_SseParser)
#include "tst_sseparser.moc"
