#include "mockprovider.h"

#include "model/json.h"

#include <cmath>

namespace {

QByteArray quoted(QStringView text)
{
    QByteArray out;
    Json::appendQuoted(out, text);
    return out;
}

QByteArray modelOf(const QByteArray &body)
{
    Json::Parser parser;
    const Json::Value model = parser.parse(body)["model"];
    return model.isString() ? quoted(model.toString()) : QByteArray("\"mock-model\"");
}

QByteArray keyOf(const LoopbackRequest &request)
{
    const QByteArray bearer = request.header("Authorization");
    if (bearer.startsWith("Bearer "))
        return bearer.mid(7);
    return request.header("x-api-key");
}

} // namespace

MockProvider::MockProvider(QObject *parent)
    : QObject(parent)
    , m_server(new LoopbackServer(this))
{
    m_server->setHandler([this](const LoopbackRequest &request) { return respond(request); });
}

bool MockProvider::listen(quint16 port)
{
    return m_server->listen(port);
}

QString MockProvider::baseURL() const
{
    return m_server->url(QStringLiteral("/v1")).toString();
}

QStringList MockProvider::tokens(const QString &reply, int charactersPerToken)
{
    QStringList out;
    const int size = qMax(1, charactersPerToken);
    qsizetype start = 0;
    while (start < reply.size()) {
        qsizetype end = qMin(reply.size(), start + size);
        if (end < reply.size() && reply.at(end).isLowSurrogate())
            ++end;
        out.append(reply.mid(start, end - start));
        start = end;
    }
    return out;
}

LoopbackResponse MockProvider::respond(const LoopbackRequest &request) const
{
    QByteArray path = request.path;
    if (const qsizetype query = path.indexOf('?'); query >= 0)
        path.truncate(query);

    if (!m_options.requireKey.isEmpty() && keyOf(request) != m_options.requireKey.toUtf8())
        return LoopbackResponse::text(401, R"({"error":{"type":"authentication_error","message":"Invalid API key"}})",
                                      "application/json");
    if (m_options.failStatus != 0)
        return LoopbackResponse::text(m_options.failStatus, m_options.failBody);

    if (path == "/v1/chat/completions" && request.method == "POST")
        return chatResponse(request, false);
    if (path == "/v1/messages" && request.method == "POST")
        return chatResponse(request, true);
    if (path == "/v1/models" && request.method == "GET") {
        QByteArray body = R"({"object":"list","data":[)";
        for (qsizetype i = 0; i < m_options.models.size(); ++i)
            body += (i ? "," : "") + QByteArray(R"({"object":"model","id":)") + quoted(m_options.models.at(i)) + '}';
        return LoopbackResponse::text(200, body + "]}", "application/json");
    }
    return LoopbackResponse::text(404, R"({"error":{"message":"Unknown path"}})", "application/json");
}

LoopbackResponse MockProvider::chatResponse(const LoopbackRequest &request, bool anthropic) const
{
    const QByteArray model = modelOf(request.body);
    const QStringList pieces = tokens(m_options.reply, m_options.charactersPerToken);
    const qint64 promptTokens = qMax<qint64>(1, request.body.size() / 4);
    const qint64 completionTokens = pieces.size();

    QList<QByteArray> events;
    events.reserve(pieces.size() + 6);
    if (anthropic) {
        events.append(R"(event: message_start
data: {"type":"message_start","message":{"id":"msg_mock","type":"message","role":"assistant","model":)" +
                      model + R"(,"content":[],"usage":{"input_tokens":)" + QByteArray::number(promptTokens) +
                      ",\"output_tokens\":1}}}\n\n");
        events.append("event: content_block_start\ndata: "
                      R"({"type":"content_block_start","index":0,"content_block":{"type":"text","text":""}})"
                      "\n\n");
        for (const QString &piece : pieces) {
            events.append("event: content_block_delta\ndata: "
                          R"({"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":)" +
                          quoted(piece) + "}}\n\n");
        }
        events.append("event: content_block_stop\ndata: {\"type\":\"content_block_stop\",\"index\":0}\n\n");
        events.append("event: message_delta\ndata: "
                      R"({"type":"message_delta","delta":{"stop_reason":"end_turn"},"usage":{"output_tokens":)" +
                      QByteArray::number(completionTokens) + "}}\n\n");
        events.append("event: message_stop\ndata: {\"type\":\"message_stop\"}\n\n");
    } else {
        const QByteArray head = R"(data: {"id":"chatcmpl-mock","object":"chat.completion.chunk","model":)" + model;
        for (const QString &piece : pieces) {
            events.append(head + R"(,"choices":[{"index":0,"delta":{"content":)" + quoted(piece) +
                          "},\"finish_reason\":null}]}\n\n");
        }
        events.append(head + R"(,"choices":[{"index":0,"delta":{},"finish_reason":"stop"}]})"
                             "\n\n");
        events.append(head + R"(,"choices":[],"usage":{"prompt_tokens":)" + QByteArray::number(promptTokens) +
                      ",\"completion_tokens\":" + QByteArray::number(completionTokens) +
                      ",\"total_tokens\":" + QByteArray::number(promptTokens + completionTokens) + "}}\n\n");
        events.append("data: [DONE]\n\n");
    }

    LoopbackResponse response = LoopbackResponse::eventStream(events);
    if (m_options.tokensPerSecond > 0) {
        // Spread the rounding so that the average rate is exact even when 1000/R is no whole number.
        const double interval = 1000.0 / m_options.tokensPerSecond;
        for (qsizetype i = 1; i < response.pieces.size(); ++i)
            response.pieces[i].delayMs = int(std::lround(double(i) * interval) - std::lround(double(i - 1) * interval));
    }
    response.dropAfterPieces = m_options.dropAfterEvents;
    return response;
}
