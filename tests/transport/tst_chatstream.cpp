#include "loopbackserver.h"
#include "mockprovider.h"
#include "transport/chatstream.h"

#include <QPointer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;

namespace {

// Everything one stream said, with the order of events and end checked as they come.
struct Recorder
{
    QList<ChatEvent> events;
    int finishedCount = 0;
    int eventsAfterEnd = 0;
    std::optional<ServiceError> error;

    void attach(ChatStream *stream, QObject *context)
    {
        QObject::connect(stream, &ChatStream::eventReceived, context, [this](const ChatEvent &event) {
            if (finishedCount > 0)
                ++eventsAfterEnd;
            events.append(event);
        });
        QObject::connect(stream, &ChatStream::finished, context, [this](const std::optional<ServiceError> &end) {
            ++finishedCount;
            error = end;
        });
    }

    QString text() const
    {
        QString all;
        for (const ChatEvent &event : events)
            all += event.text;
        return all;
    }

    QString errorText() const { return error ? errorDescription(*error) : QString(); }
};

Provider provider(ProviderWire wire, const QString &baseURL, const QString &key = QStringLiteral("sk-test"))
{
    Provider p;
    p.name = QStringLiteral("Loopback");
    p.wire = wire;
    p.baseURL = baseURL;
    p.model = QStringLiteral("test-model");
    p.apiKey = key;
    return p;
}

QList<ChatMessage> conversation()
{
    ChatMessage user;
    user.role = ChatRole::user;
    user.content = QStringLiteral("Hi");
    return {user};
}

QByteArray openAIChunk(const QByteArray &content)
{
    return R"(data: {"choices":[{"index":0,"delta":{"content":")" + content +
           R"("}}]})"
           "\n\n";
}

ChatEvent usage(std::optional<qint64> prompt, std::optional<qint64> completion, std::optional<qint64> total)
{
    return ChatEvent::usageEvent({prompt, completion, total});
}

struct StreamCase
{
    ProviderWire wire = ProviderWire::openAI;
    LoopbackResponse response;
    QList<ChatEvent> expected;
};

} // namespace

Q_DECLARE_METATYPE(StreamCase)
Q_DECLARE_METATYPE(LoopbackResponse)

class tst_ChatStream : public QObject
{
    Q_OBJECT

private slots:
    void deliversEventsInOrder_data();
    void deliversEventsInOrder();
    void endsWithError_data();
    void endsWithError();
    void hugeSingleLine();
    void stalledServer_timesOut();
    void refusedConnection_isTransferError();
    void selfSignedTls_isRefused();
    void crossOriginRedirect_neverGetsTheKey();
    void cancel_stopsAtOnceAndEndsNormallyLater();
    void destroyedConsumer_stopsSilently();
    void twoStreams_doNotMix();
    void mockProviderProcess_streamsItsReply();

private:
    Recorder run(const ChatService &service, const Provider &p, int timeoutMs = 10000);
};

Recorder tst_ChatStream::run(const ChatService &service, const Provider &p, int timeoutMs)
{
    Recorder recorder;
    QObject consumer;
    QPointer<ChatStream> stream = service.stream(p, conversation(), &consumer);
    recorder.attach(stream, &consumer);
    // Nothing is delivered inside stream(): failures come on a later turn.
    [&] { QCOMPARE(recorder.finishedCount, 0); }();
    [&] { QTRY_COMPARE_WITH_TIMEOUT(recorder.finishedCount, 1, timeoutMs); }();
    [&] { QTRY_VERIFY(stream.isNull()); }();
    return recorder;
}

void tst_ChatStream::deliversEventsInOrder_data()
{
    QTest::addColumn<StreamCase>("row");
    const auto hello =
        QList<ChatEvent>{ChatEvent::delta(QStringLiteral("Hel")), ChatEvent::delta(QStringLiteral("lo"))};
    const QByteArray usageChunk =
        R"(data: {"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})"
        "\n\n";

    {
        StreamCase row;
        row.response = LoopbackResponse::eventStream(
            {openAIChunk("Hel"), openAIChunk("lo"), usageChunk, "data: [DONE]\n\n", openAIChunk("after the end")});
        row.expected = hello + QList<ChatEvent>{usage(10, 5, 15)};
        QTest::newRow("openAI deltas, usage, done; nothing after done") << row;
    }
    {
        StreamCase row;
        QByteArray body = openAIChunk("Hel") + openAIChunk("lo") + "data: [DONE]\n\n";
        body.replace("\n", "\r\n");
        row.response = LoopbackResponse::eventStream({body});
        row.expected = hello;
        QTest::newRow("CRLF line ends") << row;
    }
    {
        StreamCase row;
        // U+1F600 is F0 9F 98 80 in UTF-8; the reads split it in the middle.
        row.response = LoopbackResponse::eventStream({R"(data: {"choices":[{"delta":{"content":"a)"
                                                      "\xF0\x9F",
                                                      "\x98\x80"
                                                      R"(b"}}]})"
                                                      "\n\n"},
                                                     60);
        row.expected = {ChatEvent::delta(QStringLiteral("a\U0001F600b"))};
        QTest::newRow("emoji split across two reads") << row;
    }
    {
        StreamCase row;
        const QByteArray body = openAIChunk("Hel") + openAIChunk("lo");
        row.response = LoopbackResponse::eventStream({body.left(7), body.mid(7, 40), body.mid(47)}, 30);
        row.expected = hello;
        QTest::newRow("lines split across reads, no end marker") << row;
    }
    {
        StreamCase row;
        row.response =
            LoopbackResponse::eventStream({openAIChunk("Hel") + R"(data: {"choices":[{"delta":{"content":"lo"}}]})"});
        row.response.framing = LoopbackResponse::Framing::closeDelimited;
        row.expected = hello;
        QTest::newRow("last line without line break, body ended by close") << row;
    }
    {
        StreamCase row;
        row.response =
            LoopbackResponse::eventStream({R"(data: {"error":{"message":"overloaded","type":"server_error"}})"
                                           "\n\n",
                                           ": keep-alive\n", "\n"});
        QTest::newRow("error object inside a 2xx body is skipped") << row;
    }
    {
        StreamCase row;
        row.wire = ProviderWire::anthropic;
        row.response = LoopbackResponse::eventStream({
            "event: message_start\ndata: "
            R"({"type":"message_start","message":{"usage":{"input_tokens":12,"output_tokens":1}}})"
            "\n\n",
            "event: content_block_start\ndata: "
            R"({"type":"content_block_start","index":0,"content_block":{"type":"text","text":""}})"
            "\n\n",
            R"(data: {"type":"content_block_delta","delta":{"type":"text_delta","text":"Hel"}})"
            "\n\n",
            R"(data: {"type":"content_block_delta","delta":{"type":"text_delta","text":"lo"}})"
            "\n\n",
            R"(data: {"type":"message_delta","delta":{"stop_reason":"end_turn"},"usage":{"output_tokens":2}})"
            "\n\n",
            R"(data: {"type":"message_stop"})"
            "\n\n",
            R"(data: {"type":"content_block_delta","delta":{"type":"text_delta","text":"late"}})"
            "\n\n",
        });
        row.expected = QList<ChatEvent>{usage(12, {}, {})} + hello + QList<ChatEvent>{usage({}, 2, {})};
        QTest::newRow("anthropic: prompt usage, deltas, completion usage, stop") << row;
    }
}

void tst_ChatStream::deliversEventsInOrder()
{
    QFETCH(StreamCase, row);
    LoopbackServer server;
    QVERIFY2(server.listen(), qPrintable(server.errorString()));
    server.setResponse(row.response);

    const Recorder recorder = run(ChatService(), provider(row.wire, server.url(QStringLiteral("/v1/")).toString()));
    QCOMPARE(recorder.errorText(), QString());
    QCOMPARE(recorder.events, row.expected);
    QCOMPARE(recorder.eventsAfterEnd, 0);
    QCOMPARE(server.requests().size(), 1);
    const QByteArray path = row.wire == ProviderWire::anthropic ? "/v1/messages" : "/v1/chat/completions";
    QCOMPARE(server.requests().constFirst().path, path);
}

void tst_ChatStream::endsWithError_data()
{
    QTest::addColumn<QString>("baseURL"); // "{server}" stands for the loopback server
    QTest::addColumn<QString>("key");
    QTest::addColumn<LoopbackResponse>("response");
    QTest::addColumn<int>("requestsSent");
    QTest::addColumn<QString>("expected");

    const QString base = QStringLiteral("{server}/v1");
    const auto ok = LoopbackResponse::eventStream({openAIChunk("x")});

    QTest::newRow("empty key, nothing sent")
        << base << QString() << ok << 0
        << QStringLiteral("No API key set for this provider. Open Settings and paste your key.");
    QTest::newRow("blank base URL") << QStringLiteral(" \n\t") << QStringLiteral("k") << ok << 0
                                    << QStringLiteral("The provider Base URL is empty or invalid.");
    QTest::newRow("unparsable base URL") << QStringLiteral("http://exa mple.com") << QStringLiteral("k") << ok << 0
                                         << QStringLiteral("The provider Base URL is empty or invalid.");
    QTest::newRow("401 body lines joined without breaks")
        << base << QStringLiteral("k")
        << LoopbackResponse::text(401, "{\"error\":\r\n{\"message\":\"bad key\"}}\n{\"extra\":true}\n",
                                  "application/json")
        << 1 << QStringLiteral(R"(Provider returned HTTP 401: {"error":{"message":"bad key"}}{"extra":true})");
    {
        LoopbackResponse slow = LoopbackResponse::eventStream({"Over", "loaded\n", "\xC3", "\xA9"}, 20);
        slow.status = 503;
        QTest::newRow("503 error body in pieces, UTF-8 split")
            << base << QStringLiteral("k") << slow << 1 << QStringLiteral("Provider returned HTTP 503: Overloadedé");
    }
    QTest::newRow("500 with empty body") << base << QStringLiteral("k") << LoopbackResponse::text(500, {}) << 1
                                         << QStringLiteral("Provider returned HTTP 500: ");
    QTest::newRow("same-origin redirect is not followed either") << base << QStringLiteral("k") << [] {
        LoopbackResponse r = LoopbackResponse::text(308, "moved");
        r.headers.append(qMakePair(QByteArray("Location"), QByteArray("/v2/chat/completions")));
        return r;
    }() << 1 << QStringLiteral("Provider returned HTTP 308: moved");
}

void tst_ChatStream::endsWithError()
{
    QFETCH(QString, baseURL);
    QFETCH(QString, key);
    QFETCH(LoopbackResponse, response);
    QFETCH(int, requestsSent);
    QFETCH(QString, expected);

    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(response);
    baseURL.replace(QStringLiteral("{server}"), server.url().toString());

    const Recorder recorder = run(ChatService(), provider(ProviderWire::openAI, baseURL, key));
    QVERIFY(recorder.error.has_value());
    QVERIFY(std::holds_alternative<ChatServiceError>(*recorder.error));
    QCOMPARE(recorder.errorText(), expected);
    QVERIFY(recorder.events.isEmpty());
    QCOMPARE(server.requests().size(), requestsSent);
    QCOMPARE(server.connectionCount(), requestsSent);
}

void tst_ChatStream::hugeSingleLine()
{
    const QByteArray content(4 * 1024 * 1024, 'x');
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(LoopbackResponse::eventStream({openAIChunk(content), openAIChunk("tail"), "data: [DONE]\n\n"}));

    const Recorder recorder = run(ChatService(), provider(ProviderWire::openAI, server.url().toString()), 60000);
    QCOMPARE(recorder.errorText(), QString());
    QCOMPARE(recorder.events.size(), 2);
    QCOMPARE(recorder.events.at(0).text.size(), content.size());
    QCOMPARE(recorder.events.at(1).text, QStringLiteral("tail"));
}

void tst_ChatStream::stalledServer_timesOut()
{
    LoopbackServer silent;
    QVERIFY(silent.listen());
    silent.setResponse([] {
        LoopbackResponse r;
        r.neverAnswer = true;
        return r;
    }());
    LoopbackServer stallsMidBody;
    QVERIFY(stallsMidBody.listen());
    stallsMidBody.setResponse(LoopbackResponse::eventStream({openAIChunk("first"), openAIChunk("never")}, 60000));

    const ChatService service(300ms);
    for (LoopbackServer *server : {&silent, &stallsMidBody}) {
        const Recorder recorder = run(service, provider(ProviderWire::openAI, server->url().toString()));
        QVERIFY(recorder.error.has_value());
        QVERIFY(std::holds_alternative<TransferError>(*recorder.error));
        const TransferError error = std::get<TransferError>(*recorder.error);
        QCOMPARE(error.code, QNetworkReply::OperationCanceledError);
        QVERIFY(!error.description.isEmpty());
        QCOMPARE(recorder.events.size(), server == &silent ? 0 : 1);
    }
}

void tst_ChatStream::refusedConnection_isTransferError()
{
    quint16 port = 0;
    {
        LoopbackServer closed;
        QVERIFY(closed.listen());
        port = closed.port();
    }
    const Recorder recorder =
        run(ChatService(), provider(ProviderWire::openAI, QStringLiteral("http://127.0.0.1:%1/v1").arg(port)));
    QVERIFY(recorder.error.has_value());
    QVERIFY(std::holds_alternative<TransferError>(*recorder.error));
    QCOMPARE(std::get<TransferError>(*recorder.error).code, QNetworkReply::ConnectionRefusedError);
    QCOMPARE(recorder.errorText(), QStringLiteral("Connection refused"));

    // A file: base URL is no HTTP response at all, whether or not the file exists.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("v1/chat")));
    QFile existing(dir.filePath(QStringLiteral("v1/chat/completions")));
    QVERIFY(existing.open(QIODevice::WriteOnly));
    existing.write("data: [DONE]\n");
    existing.close();
    for (const QString &folder : {dir.filePath(QStringLiteral("v1")), dir.filePath(QStringLiteral("missing"))}) {
        const Recorder file =
            run(ChatService(), provider(ProviderWire::openAI, QUrl::fromLocalFile(folder).toString()));
        QCOMPARE(file.errorText(), QStringLiteral("Provider returned HTTP -1: No HTTP response"));
        QVERIFY(file.events.isEmpty());
    }
}

void tst_ChatStream::selfSignedTls_isRefused()
{
    LoopbackServer server;
    if (!server.listenTls(LoopbackServer::testCertificateFile(), LoopbackServer::testKeyFile()))
        QSKIP(qPrintable(QStringLiteral("TLS server unavailable: ") + server.errorString()));
    server.setResponse(LoopbackResponse::eventStream({openAIChunk("secret reply")}));

    const Recorder recorder =
        run(ChatService(), provider(ProviderWire::openAI, server.url(QStringLiteral("/v1")).toString()));
    QVERIFY(recorder.error.has_value());
    QVERIFY(std::holds_alternative<TransferError>(*recorder.error));
    QCOMPARE(std::get<TransferError>(*recorder.error).code, QNetworkReply::SslHandshakeFailedError);
    QVERIFY2(recorder.errorText().contains(QStringLiteral("SSL")), qPrintable(recorder.errorText()));
    QVERIFY(recorder.events.isEmpty());
    QVERIFY(server.requests().isEmpty());
}

void tst_ChatStream::crossOriginRedirect_neverGetsTheKey()
{
    LoopbackServer elsewhere;
    QVERIFY(elsewhere.listen());
    elsewhere.setResponse(LoopbackResponse::eventStream({openAIChunk("stolen")}));
    LoopbackServer origin;
    QVERIFY(origin.listen());
    LoopbackResponse redirect = LoopbackResponse::text(307, "see other host");
    redirect.headers.append(
        qMakePair(QByteArray("Location"), elsewhere.url(QStringLiteral("/v1/chat/completions")).toEncoded()));
    origin.setResponse(redirect);

    for (const ProviderWire wire : {ProviderWire::openAI, ProviderWire::anthropic}) {
        const Recorder recorder = run(
            ChatService(), provider(wire, origin.url(QStringLiteral("/v1")).toString(), QStringLiteral("sk-secret")));
        QCOMPARE(recorder.errorText(), QStringLiteral("Provider returned HTTP 307: see other host"));
        QVERIFY(recorder.events.isEmpty());
    }
    QCOMPARE(origin.requests().size(), 2);
    QCOMPARE(origin.requests().at(0).header("Authorization"), QByteArray("Bearer sk-secret"));
    QCOMPARE(origin.requests().at(1).header("x-api-key"), QByteArray("sk-secret"));
    QCOMPARE(elsewhere.connectionCount(), 0);
}

void tst_ChatStream::cancel_stopsAtOnceAndEndsNormallyLater()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    QList<QByteArray> chunks;
    for (int i = 0; i < 200; ++i)
        chunks.append(openAIChunk(QByteArray::number(i) + ' '));
    server.setResponse(LoopbackResponse::eventStream(chunks, 5));

    QObject consumer;
    Recorder recorder;
    QPointer<ChatStream> stream =
        ChatService().stream(provider(ProviderWire::openAI, server.url().toString()), conversation(), &consumer);
    recorder.attach(stream, &consumer);
    int finishedAtCancel = -1;
    // Cancelling from inside the event's own slot is how a consumer stops as soon as it has enough.
    connect(stream, &ChatStream::eventReceived, &consumer, [&] {
        if (recorder.events.size() == 3) {
            stream->cancel();
            finishedAtCancel = recorder.finishedCount;
            QVERIFY(stream->isFinished());
            stream->cancel();
        }
    });
    QTRY_COMPARE(recorder.finishedCount, 1);
    QCOMPARE(finishedAtCancel, 0);
    QCOMPARE(recorder.events.size(), 3);
    QVERIFY(!recorder.error.has_value());
    QTRY_VERIFY(stream.isNull());
    QTest::qWait(50);
    QCOMPARE(recorder.events.size(), 3);
    QCOMPARE(recorder.finishedCount, 1);
}

void tst_ChatStream::destroyedConsumer_stopsSilently()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    QList<QByteArray> chunks;
    for (int i = 0; i < 100; ++i)
        chunks.append(openAIChunk("x"));
    server.setResponse(LoopbackResponse::eventStream(chunks, 5));

    auto *consumer = new QObject;
    int events = 0;
    int ends = 0;
    QPointer<ChatStream> stream =
        ChatService().stream(provider(ProviderWire::openAI, server.url().toString()), conversation(), consumer);
    // Counted through a context that outlives the consumer, to see anything emitted after it is gone.
    connect(stream, &ChatStream::eventReceived, this, [&] {
        if (++events == 2)
            delete consumer;
    });
    connect(stream, &ChatStream::finished, this, [&] { ++ends; });
    QTRY_VERIFY(stream.isNull());
    QTest::qWait(50);
    QCOMPARE(events, 2);
    QCOMPARE(ends, 0);
}

void tst_ChatStream::twoStreams_doNotMix()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setHandler([](const LoopbackRequest &request) {
        const QByteArray tag = request.body.contains("\"model\":\"a\"") ? "a" : "b";
        QList<QByteArray> chunks;
        for (int i = 0; i < 20; ++i)
            chunks.append(openAIChunk(tag + QByteArray::number(i) + ' '));
        chunks.append("data: [DONE]\n\n");
        return LoopbackResponse::eventStream(chunks, 3);
    });

    QObject consumer;
    Recorder a, b;
    Provider pa = provider(ProviderWire::openAI, server.url().toString());
    pa.model = QStringLiteral("a");
    Provider pb = pa;
    pb.model = QStringLiteral("b");
    a.attach(ChatService().stream(pa, conversation(), &consumer), &consumer);
    b.attach(ChatService().stream(pb, conversation(), &consumer), &consumer);
    QTRY_VERIFY(a.finishedCount == 1 && b.finishedCount == 1);

    QString expectedA, expectedB;
    for (int i = 0; i < 20; ++i) {
        expectedA += QStringLiteral("a%1 ").arg(i);
        expectedB += QStringLiteral("b%1 ").arg(i);
    }
    QCOMPARE(a.text(), expectedA);
    QCOMPARE(b.text(), expectedB);
    QVERIFY(!a.error && !b.error);
}

void tst_ChatStream::mockProviderProcess_streamsItsReply()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString reply = QStringLiteral("# Title\n\nSome *Markdown* with ünïcödé and 😀 emoji.\n\n```\ncode\n```\n");
    QFile replyFile(dir.filePath(QStringLiteral("reply.md")));
    QVERIFY(replyFile.open(QIODevice::WriteOnly));
    replyFile.write(reply.toUtf8());
    replyFile.close();

    const auto startMock = [&](QProcess &process, const QStringList &extra) {
        process.start(QStringLiteral(VERBOLT_MOCK_PROVIDER),
                      QStringList{QStringLiteral("--reply"), replyFile.fileName(),
                                  QStringLiteral("--tokens-per-second"), QStringLiteral("2000"),
                                  QStringLiteral("--require-key"), QStringLiteral("sk-mock")} +
                          extra);
        if (!process.waitForStarted() || !process.waitForReadyRead(10000))
            return QString();
        return QStringLiteral("http://127.0.0.1:%1/v1").arg(QString::fromUtf8(process.readLine().trimmed()));
    };

    QProcess mock;
    const QString base = startMock(mock, {});
    QVERIFY(!base.isEmpty());
    for (const ProviderWire wire : {ProviderWire::openAI, ProviderWire::anthropic}) {
        const Recorder recorder = run(ChatService(), provider(wire, base, QStringLiteral("sk-mock")));
        QCOMPARE(recorder.errorText(), QString());
        QCOMPARE(recorder.text(), reply);
        TokenUsage merged;
        for (const ChatEvent &event : recorder.events) {
            if (event.kind != ChatEvent::Kind::usage)
                continue;
            merged.promptTokens = event.usage.promptTokens ? event.usage.promptTokens : merged.promptTokens;
            merged.completionTokens =
                event.usage.completionTokens ? event.usage.completionTokens : merged.completionTokens;
        }
        QVERIFY(merged.promptTokens.value_or(0) > 0);
        QVERIFY(merged.completionTokens.value_or(0) > 0);
    }
    const Recorder wrongKey = run(ChatService(), provider(ProviderWire::openAI, base, QStringLiteral("sk-other")));
    QVERIFY(wrongKey.errorText().startsWith(QStringLiteral("Provider returned HTTP 401: ")));
    mock.kill();
    mock.waitForFinished();

    QProcess dropping;
    const QString dropBase = startMock(dropping, {QStringLiteral("--drop-after"), QStringLiteral("3")});
    QVERIFY(!dropBase.isEmpty());
    const Recorder dropped = run(ChatService(), provider(ProviderWire::openAI, dropBase, QStringLiteral("sk-mock")));
    QCOMPARE(dropped.events.size(), 3);
    QVERIFY(dropped.error.has_value());
    QVERIFY(std::holds_alternative<TransferError>(*dropped.error));
    dropping.kill();
    dropping.waitForFinished();
}

QTEST_GUILESS_MAIN(tst_ChatStream)
#include "tst_chatstream.moc"
