#include "transport/chatservice.h"

#include <QRandomGenerator>
#include <QTest>

using Parsed = ChatService::Parsed;
using Kind = ChatService::Parsed::Kind;

namespace {

Parsed delta(const QString &text)
{
    return {Kind::delta, text, {}};
}

Parsed usage(std::optional<qint64> prompt, std::optional<qint64> completion, std::optional<qint64> total)
{
    return {Kind::usage, {}, {prompt, completion, total}};
}

const Parsed skip{};
const Parsed done{Kind::done, {}, {}};

} // namespace

class tst_SseParser : public QObject
{
    Q_OBJECT

private slots:
    void classify_data();
    void classify();
    void randomBytesNeverFail();
};

void tst_SseParser::classify_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("wire");
    QTest::addColumn<Parsed>("expected");
    const int oa = int(ProviderWire::openAI);
    const int an = int(ProviderWire::anthropic);

    // Framing, both dialects.
    for (const int wire : {oa, an}) {
        const QByteArray tag = wire == oa ? "openAI: " : "anthropic: ";
        QTest::newRow(QByteArray(tag + "done").constData()) << QByteArray("data: [DONE]") << wire << done;
        QTest::newRow(QByteArray(tag + "done, no blank").constData()) << QByteArray("data:[DONE]") << wire << done;
        QTest::newRow(QByteArray(tag + "done, trailing blanks").constData())
            << QByteArray("data: [DONE] \t ") << wire << done;
        QTest::newRow(QByteArray(tag + "done, no-break spaces").constData())
            << QByteArray("data:\xc2\xa0[DONE]\xe3\x80\x80") << wire << done;
        QTest::newRow(QByteArray(tag + "blank before data").constData()) << QByteArray(" data: [DONE]") << wire << skip;
        QTest::newRow(QByteArray(tag + "DATA upper case").constData()) << QByteArray("DATA: [DONE]") << wire << skip;
        QTest::newRow(QByteArray(tag + "only blanks").constData()) << QByteArray("data:   \t") << wire << skip;
        QTest::newRow(QByteArray(tag + "empty line").constData()) << QByteArray() << wire << skip;
        QTest::newRow(QByteArray(tag + "event line").constData()) << QByteArray("event: message_stop") << wire << skip;
        QTest::newRow(QByteArray(tag + "comment").constData()) << QByteArray(": keep-alive") << wire << skip;
        QTest::newRow(QByteArray(tag + "not json").constData()) << QByteArray("data: {oops") << wire << skip;
        QTest::newRow(QByteArray(tag + "array payload").constData())
            << QByteArray(R"(data: [{"type":"message_stop"}])") << wire << skip;
        QTest::newRow(QByteArray(tag + "string payload").constData())
            << QByteArray(R"(data: "[DONE]")") << wire << skip;
        QTest::newRow(QByteArray(tag + "invalid utf-8").constData())
            << QByteArray("data: {\"type\":\"content_block_delta\",\"delta\":"
                          "{\"text\":\"\xff\"},\"choices\":[{\"delta\":"
                          "{\"content\":\"\xff\"}}]}")
            << wire << skip;
        QTest::newRow(QByteArray(tag + "line break is not trimmed").constData())
            << QByteArray("data:\n[DONE]") << wire << skip;
    }

    // OpenAI-compatible.
    QTest::newRow("oa delta") << QByteArray(R"(data: {"choices":[{"delta":{"content":"Hi"}}]})") << oa
                              << delta(QStringLiteral("Hi"));
    QTest::newRow("oa delta keeps blanks")
        << QByteArray(R"(data:{"choices":[{"delta":{"content":"  a\n"}}]}  )") << oa << delta(QStringLiteral("  a\n"));
    QTest::newRow("oa escaped surrogate pair")
        << QByteArray(R"(data: {"choices":[{"delta":{"content":"\ud83d\ude00 \u00e9"}}]})") << oa
        << delta(QStringLiteral("😀 é"));
    QTest::newRow("oa only first choice")
        << QByteArray(R"(data: {"choices":[{"delta":{}},{"delta":{"content":"x"}}]})") << oa << skip;
    QTest::newRow("oa empty content") << QByteArray(R"(data: {"choices":[{"delta":{"content":""}}]})") << oa << skip;
    QTest::newRow("oa null content") << QByteArray(R"(data: {"choices":[{"delta":{"content":null}}],"usage":null})")
                                     << oa << skip;
    QTest::newRow("oa content not string")
        << QByteArray(R"(data: {"choices":[{"delta":{"content":5}}]})") << oa << skip;
    QTest::newRow("oa choices not all objects")
        << QByteArray(R"(data: {"choices":[{"delta":{"content":"x"}},1]})") << oa << skip;
    QTest::newRow("oa content wins over usage")
        << QByteArray(R"(data: {"choices":[{"delta":{"content":"x"}}],"usage":{"prompt_tokens":1}})") << oa
        << delta(QStringLiteral("x"));
    QTest::newRow("oa usage after empty choices")
        << QByteArray(R"(data: {"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})")
        << oa << usage(10, 5, 15);
    QTest::newRow("oa empty usage") << QByteArray(R"(data: {"usage":{}})") << oa << usage({}, {}, {});
    QTest::newRow("oa mistyped counts")
        << QByteArray(R"(data: {"usage":{"prompt_tokens":"10","completion_tokens":2.5,"total_tokens":null}})") << oa
        << usage({}, {}, {});
    QTest::newRow("oa count limits")
        << QByteArray(R"(data: {"usage":{"prompt_tokens":9223372036854775807,"completion_tokens":99999999999999999999,)"
                      R"("total_tokens":-9223372036854775808}})")
        << oa << usage(std::numeric_limits<qint64>::max(), {}, std::numeric_limits<qint64>::min());
    QTest::newRow("oa usage not object") << QByteArray(R"(data: {"choices":[],"usage":[1]})") << oa << skip;
    QTest::newRow("oa anthropic event ignored") << QByteArray(R"(data: {"type":"message_stop"})") << oa << skip;

    // Anthropic.
    QTest::newRow("an delta") << QByteArray(R"(data: {"type":"content_block_delta","index":0,"delta":)"
                                            R"({"type":"text_delta","text":"Hé"}})")
                              << an << delta(QStringLiteral("Hé"));
    QTest::newRow("an empty delta passes")
        << QByteArray(R"(data: {"type":"content_block_delta","delta":{"text":""}})") << an << delta(QString());
    QTest::newRow("an delta without text")
        << QByteArray(R"(data: {"type":"content_block_delta","delta":{}})") << an << skip;
    QTest::newRow("an start usage")
        << QByteArray(R"(data: {"type":"message_start","message":{"usage":{"input_tokens":25,"output_tokens":1}}})")
        << an << usage(25, {}, {});
    QTest::newRow("an start without usage")
        << QByteArray(R"(data: {"type":"message_start","message":{}})") << an << skip;
    QTest::newRow("an start usage without input")
        << QByteArray(R"(data: {"type":"message_start","message":{"usage":{}}})") << an << usage({}, {}, {});
    QTest::newRow("an message delta usage")
        << QByteArray(R"(data: {"type":"message_delta","delta":{},"usage":{"output_tokens":42}})") << an
        << usage({}, 42, {});
    QTest::newRow("an message delta without usage") << QByteArray(R"(data: {"type":"message_delta"})") << an << skip;
    QTest::newRow("an stop") << QByteArray(R"(data: {"type":"message_stop"})") << an << done;
    QTest::newRow("an error event") << QByteArray(R"(data: {"type":"error","error":{"message":"overloaded"}})") << an
                                    << skip;
    QTest::newRow("an type not string") << QByteArray(R"(data: {"type":1})") << an << skip;
    QTest::newRow("an openAI chunk ignored")
        << QByteArray(R"(data: {"choices":[{"delta":{"content":"x"}}]})") << an << skip;
}

void tst_SseParser::classify()
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

void tst_SseParser::randomBytesNeverFail()
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

QTEST_GUILESS_MAIN(tst_SseParser)
#include "tst_sseparser.moc"
