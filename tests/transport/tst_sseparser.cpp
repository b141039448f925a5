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
    const std::pair<const char *, QByteArray> framing[] = {
        {"done", "data: [DONE]"},
        {"done, no blank", "data:[DONE]"},
        {"done, trailing blanks", "data: [DONE] \t "},
        {"done, no-break spaces", "data:\xc2\xa0[DONE]\xe3\x80\x80"},
        {"blank before data", " data: [DONE]"},
        {"DATA upper case", "DATA: [DONE]"},
        {"line break is not trimmed", "data:\n[DONE]"},
        {"only blanks", "data:   \t"},
        {"empty line", ""},
        {"event line", "event: message_stop"},
        {"comment", ": keep-alive"},
        {"not json", "data: {oops"},
        {"array payload", R"(data: [{"type":"message_stop"}])"},
        {"string payload", R"(data: "[DONE]")"},
        {"invalid utf-8", "data: {\"type\":\"content_block_delta\",\"delta\":{\"text\":\"\xff\"},"
                          "\"choices\":[{\"delta\":{\"content\":\"\xff\"}}]}"},
    };
    for (const int wire : {oa, an}) {
        for (const auto &[name, line] : framing)
            QTest::addRow("%s: %s", wire == oa ? "openAI" : "anthropic", name)
                << line << wire << (QByteArrayView(name).startsWith("done") ? done : skip);
    }

    // One dialect each: what the other dialect sends is skipped.
    struct Row
    {
        const char *name;
        int wire;
        const char *line;
        Parsed expected;
    };
    const qint64 max = std::numeric_limits<qint64>::max(), min = std::numeric_limits<qint64>::min();
    const Row rows[] = {
        {"oa delta", oa, R"(data: {"choices":[{"delta":{"content":"Hi"}}]})", delta(QStringLiteral("Hi"))},
        {"oa delta keeps blanks", oa, R"(data:{"choices":[{"delta":{"content":"  a\n"}}]}  )",
         delta(QStringLiteral("  a\n"))},
        {"oa escaped surrogate pair", oa, R"(data: {"choices":[{"delta":{"content":"\ud83d\ude00 \u00e9"}}]})",
         delta(QStringLiteral("😀 é"))},
        {"oa only first choice", oa, R"(data: {"choices":[{"delta":{}},{"delta":{"content":"x"}}]})", skip},
        {"oa empty content", oa, R"(data: {"choices":[{"delta":{"content":""}}]})", skip},
        {"oa null content", oa, R"(data: {"choices":[{"delta":{"content":null}}],"usage":null})", skip},
        {"oa content not string", oa, R"(data: {"choices":[{"delta":{"content":5}}]})", skip},
        {"oa choices not all objects", oa, R"(data: {"choices":[{"delta":{"content":"x"}},1]})", skip},
        {"oa content wins over usage", oa,
         R"(data: {"choices":[{"delta":{"content":"x"}}],"usage":{"prompt_tokens":1}})", delta(QStringLiteral("x"))},
        {"oa usage after empty choices", oa,
         R"(data: {"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})",
         usage(10, 5, 15)},
        {"oa empty usage", oa, R"(data: {"usage":{}})", usage({}, {}, {})},
        {"oa mistyped counts", oa,
         R"(data: {"usage":{"prompt_tokens":"10","completion_tokens":2.5,"total_tokens":null}})", usage({}, {}, {})},
        {"oa count limits", oa,
         R"(data: {"usage":{"prompt_tokens":9223372036854775807,"completion_tokens":99999999999999999999,)"
         R"("total_tokens":-9223372036854775808}})",
         usage(max, {}, min)},
        {"oa usage not object", oa, R"(data: {"choices":[],"usage":[1]})", skip},
        {"oa anthropic event ignored", oa, R"(data: {"type":"message_stop"})", skip},
        {"an delta", an, R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hé"}})",
         delta(QStringLiteral("Hé"))},
        {"an empty delta passes", an, R"(data: {"type":"content_block_delta","delta":{"text":""}})", delta(QString())},
        {"an delta without text", an, R"(data: {"type":"content_block_delta","delta":{}})", skip},
        {"an start usage", an,
         R"(data: {"type":"message_start","message":{"usage":{"input_tokens":25,"output_tokens":1}}})",
         usage(25, {}, {})},
        {"an start without usage", an, R"(data: {"type":"message_start","message":{}})", skip},
        {"an start usage without input", an, R"(data: {"type":"message_start","message":{"usage":{}}})",
         usage({}, {}, {})},
        {"an message delta usage", an, R"(data: {"type":"message_delta","delta":{},"usage":{"output_tokens":42}})",
         usage({}, 42, {})},
        {"an message delta without usage", an, R"(data: {"type":"message_delta"})", skip},
        {"an stop", an, R"(data: {"type":"message_stop"})", done},
        {"an error event", an, R"(data: {"type":"error","error":{"message":"overloaded"}})", skip},
        {"an type not string", an, R"(data: {"type":1})", skip},
        {"an openAI chunk ignored", an, R"(data: {"choices":[{"delta":{"content":"x"}}]})", skip},
    };
    for (const Row &row : rows)
        QTest::newRow(row.name) << QByteArray(row.line) << row.wire << row.expected;
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
