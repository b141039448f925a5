// The stream line parser over a realistic reply: the 20,000-token reply cut into chunks of
// about four characters, framed as each provider frames them (event lines and blank
// separators included).
#include "harness.h"
#include "model/json.h"
#include "transport/chatservice.h"

#include <QFile>

namespace {

QStringList chunks(const QString &text)
{
    QStringList out;
    for (qsizetype i = 0; i < text.size(); i += 4) {
        qsizetype n = qMin<qsizetype>(4, text.size() - i);
        if (text[i + n - 1].isHighSurrogate() && i + n < text.size())
            ++n;
        out.append(text.mid(i, n));
        i += n - 4;
    }
    return out;
}

QByteArray quoted(const QString &s)
{
    QByteArray out;
    Json::appendQuoted(out, s);
    return out;
}

QList<QByteArray> openAILines(const QStringList &pieces)
{
    QList<QByteArray> lines;
    for (const QString &piece : pieces) {
        lines.append(R"(data: {"id":"chatcmpl-9x2Yb","object":"chat.completion.chunk","created":1718000000,)"
                     R"("model":"gpt-4o-mini","system_fingerprint":"fp_0ba0d124f1","choices":[{"index":0,)"
                     R"("delta":{"content":)" +
                     quoted(piece) + R"(},"logprobs":null,"finish_reason":null}],"usage":null})");
        lines.append(QByteArray());
    }
    lines.append(R"(data: {"id":"chatcmpl-9x2Yb","object":"chat.completion.chunk","created":1718000000,)"
                 R"("model":"gpt-4o-mini","choices":[],"usage":{"prompt_tokens":812,"completion_tokens":20000,)"
                 R"("total_tokens":20812}})");
    lines.append(QByteArray());
    lines.append("data: [DONE]");
    return lines;
}

QList<QByteArray> anthropicLines(const QStringList &pieces)
{
    QList<QByteArray> lines{
        "event: message_start",
        R"(data: {"type":"message_start","message":{"id":"msg_01","type":"message","role":"assistant",)"
        R"("content":[],"model":"claude-3-5-sonnet-latest","usage":{"input_tokens":812,"output_tokens":1}}})",
        QByteArray()};
    for (const QString &piece : pieces) {
        lines.append("event: content_block_delta");
        lines.append(R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":)" +
                     quoted(piece) + "}}");
        lines.append(QByteArray());
    }
    lines.append("event: message_delta");
    lines.append(
        R"(data: {"type":"message_delta","delta":{"stop_reason":"end_turn"},"usage":{"output_tokens":20000}})");
    lines.append(QByteArray());
    lines.append("event: message_stop");
    lines.append(R"(data: {"type":"message_stop"})");
    return lines;
}

void run(const char *name, const QList<QByteArray> &lines, ProviderWire wire)
{
    qsizetype bytes = 0;
    for (const QByteArray &line : lines)
        bytes += line.size() + 1;
    qsizetype deltas = 0;
    const double ms = Bench::medianMs(15, [&] {
        deltas = 0;
        for (const QByteArray &line : lines) {
            if (ChatService::parseSSELine(QByteArrayView(line), wire).kind == ChatService::Parsed::Kind::delta)
                ++deltas;
        }
    });
    std::printf("%s: %lld lines, %.2f MB, %lld deltas\n", name, qlonglong(lines.size()), double(bytes) / 1e6,
                qlonglong(deltas));
    Bench::report("  median time", ms, "ms");
    Bench::report("  lines per second", double(lines.size()) / (ms / 1000.0), "lines/s");
    Bench::report("  throughput", double(bytes) / 1e6 / (ms / 1000.0), "MB/s");
}

} // namespace

int main()
{
    QFile file(Bench::longReplyFile());
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
        return 1;
    }
    const QStringList pieces = chunks(QString::fromUtf8(file.readAll()));
    run("OpenAI-compatible stream", openAILines(pieces), ProviderWire::openAI);
    run("Anthropic stream", anthropicLines(pieces), ProviderWire::anthropic);
    return 0;
}
