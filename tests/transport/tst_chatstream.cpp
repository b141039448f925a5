#include "loopbackserver.h"
#include "loopbacktls.h"
#include "mockprovider.h"
#include "transport/networkaccess.h"
#include "transportrecorders.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

using namespace std::chrono_literals;

namespace {

using namespace TransportTest;

const QList<ChatMessage> hi{ChatMessage(ChatRole::user, u"Hi"_s)};

QByteArray sse(const QByteArray &json)
{
    return "data: " + json + "\n\n";
}

QByteArray chunk(const QByteArray &content)
{
    return sse(R"({"choices":[{"index":0,"delta":{"content":")" + content + "\"}}]}");
}

struct StreamCase
{
    LoopbackResponse response;
    QList<ChatEvent> expected;
    std::chrono::milliseconds timeout = 60s;
};

struct FailCase
{
    // {server}: the loopback server, {tls}: the same over self-signed TLS, {closed}: a port
    // nobody listens on, {dir}: a local folder holding v1/chat/completions. {elsewhere} in a
    // response header is a second server, which must never be reached.
    QString base = u"{server}/v1"_s;
    QString key = u"k"_s;
    LoopbackResponse response = LoopbackResponse::eventStream({chunk("x")});
    std::chrono::milliseconds timeout = 60s;
    TransferLimits limits = {};
    QString text = {}; // the whole text of our own errors; part of the network stack's text otherwise
    int code = -1;     // QNetworkReply's code of a transfer error
    int requests = 1;
    int events = 0;
    int connections = -1;          // connections the server saw, when it matters
    bool abortedElsewhere = false; // the transfer is cancelled by someone else once the request is in
};

struct EndlessCase
{
    LoopbackResponse response = {};
    TransferLimits limits = {};
    QString text = {}; // the end's text; empty for a normal end
    bool stopAtFirstEvent = false;
};

} // namespace

Q_DECLARE_METATYPE(StreamCase)
Q_DECLARE_METATYPE(FailCase)
Q_DECLARE_METATYPE(EndlessCase)

class tst_ChatStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void deliversEventsInOrder_data();
    void deliversEventsInOrder();
    void fails_data();
    void fails();
    void endlessChunkedBody_stopsTheTransfer_data();
    void endlessChunkedBody_stopsTheTransfer();
    void twoStreams_data();
    void twoStreams();
    void readsAFastStreamInFewPieces_data();
    void readsAFastStreamInFewPieces();
    void mockProviderProcess_streamsItsReply();

private:
    QTemporaryDir m_dir;
};

void tst_ChatStream::initTestCase()
{
    QVERIFY(QDir(m_dir.path()).mkpath(u"v1/chat"_s));
    QFile file(m_dir.filePath(u"v1/chat/completions"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("data: [DONE]\n");
}

void tst_ChatStream::deliversEventsInOrder_data()
{
    QTest::addColumn<StreamCase>("row");
    const auto delta = [](const QString &text) { return ChatEvent::delta(text); };
    const auto usage = [](std::optional<qint64> prompt, std::optional<qint64> completion, std::optional<qint64> total) {
        return ChatEvent::usageEvent({prompt, completion, total});
    };
    const QList<ChatEvent> hello{delta(u"Hel"_s), delta(u"lo"_s)};
    const QByteArray done = "data: [DONE]\n\n";

    QTest::newRow("usage, done, nothing after done") << StreamCase{
        .response = LoopbackResponse::eventStream(
            {chunk("Hel"), chunk("lo"),
             sse(R"({"choices":[],"usage":{"prompt_tokens":10,"completion_tokens":5,"total_tokens":15}})"), done,
             chunk("after the end")}),
        .expected = hello + QList<ChatEvent>{usage(10, 5, 15)}};
    // U+1F600 is F0 9F 98 80 in UTF-8: the second line breaks off inside it, between two reads.
    const QByteArray emoji = chunk("Hel") + chunk("a\xF0\x9F\x98\x80"
                                                  "b");
    const qsizetype half = emoji.indexOf('\x98');
    QTest::newRow("line and emoji split across reads")
        << StreamCase{.response = LoopbackResponse::eventStream({emoji.left(half), emoji.mid(half)}, 60),
                      .expected = {delta(u"Hel"_s), delta(u"a\U0001F600b"_s)}};
    LoopbackResponse closed = LoopbackResponse::eventStream({chunk("Hel") + chunk("lo").chopped(2)});
    closed.framing = LoopbackResponse::Framing::closeDelimited;
    QTest::newRow("last line without line break, body ended by close")
        << StreamCase{.response = closed, .expected = hello};
    const QByteArray huge(4 * 1024 * 1024, 'x');
    QTest::newRow("4 MB single line") << StreamCase{
        .response = LoopbackResponse::eventStream({chunk(huge), chunk("tail"), done}),
        .expected = {delta(QString::fromLatin1(huge)), delta(u"tail"_s)}};
    // The time-out counts quiet time, not the length of the whole reply.
    QList<QByteArray> slow;
    QList<ChatEvent> slowEvents;
    for (const char *piece : {"a", "b", "c", "d", "e", "f"}) {
        slow.append(chunk(piece));
        slowEvents.append(delta(QString::fromLatin1(piece)));
    }
    QTest::newRow("slow stream longer than the time-out")
        << StreamCase{.response = LoopbackResponse::eventStream(slow, 250), .expected = slowEvents, .timeout = 1000ms};
}
void tst_ChatStream::deliversEventsInOrder()
{
    QFETCH(StreamCase, row);
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(row.response);

    const StreamRecorder recorder =
        runStream(provider(ProviderWire::openAI, server.url(u"/v1/"_s).toString()), ChatService(row.timeout));
    QCOMPARE(recorder.errorText(), QString());
    QCOMPARE(recorder.events, row.expected);
    QCOMPARE(recorder.eventsAfterEnd, 0);
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests().constFirst().path, QByteArray("/v1/chat/completions"));
}

void tst_ChatStream::fails_data()
{
    QTest::addColumn<FailCase>("row");
    const QString noResponse = u"Provider returned HTTP -1: No HTTP response"_s;
    const QString invalidBase = u"The provider Base URL is empty or invalid."_s;
    LoopbackResponse slow = LoopbackResponse::eventStream({"Over", "loaded\n", "\xC3", "\xA9"}, 20);
    slow.status = 503;
    LoopbackResponse crossOrigin = LoopbackResponse::text(307, "see other host");
    crossOrigin.headers.append({QByteArray("Location"), QByteArray("{elsewhere}/v1/chat/completions")});
    LoopbackResponse dropped = LoopbackResponse::eventStream({chunk("first"), chunk("lost")});
    dropped.framing = LoopbackResponse::Framing::contentLength;
    dropped.dropAfterPieces = 1;

    QTest::newRow("empty key, nothing sent")
        << FailCase{.key = QString(),
                    .text = u"No API key set for this provider. Open Settings and paste your key."_s,
                    .requests = 0};
    QTest::newRow("blank base URL") << FailCase{.base = u" \n\t"_s, .text = invalidBase, .requests = 0};
    QTest::newRow("401 body lines joined without breaks") << FailCase{
        .response = LoopbackResponse::text(401, "{\"error\":\r\n{\"message\":\"bad key\"}}\n{\"extra\":true}\n"),
        .text = uR"(Provider returned HTTP 401: {"error":{"message":"bad key"}}{"extra":true})"_s};
    QTest::newRow("503 body in pieces, UTF-8 split")
        << FailCase{.response = slow, .text = u"Provider returned HTTP 503: Overloadedé"_s};
    QTest::newRow("cross-origin redirect never gets the key") << FailCase{
        .key = u"sk-secret"_s, .response = crossOrigin, .text = u"Provider returned HTTP 307: see other host"_s};
    // Schemes Qt reads locally, even where a file answers to the path.
    for (const char *base : {"{dir}/v1", "{dir}/missing", "data:text/plain,x", "qrc:/v1"})
        QTest::addRow("base URL %s", base)
            << FailCase{.base = QString::fromLatin1(base), .text = noResponse, .requests = 0};
    QTest::newRow("refused connection") << FailCase{.base = u"{closed}/v1"_s,
                                                    .text = u"Connection refused"_s,
                                                    .code = QNetworkReply::ConnectionRefusedError,
                                                    .requests = 0};
    QTest::newRow("self-signed TLS") << FailCase{
        .base = u"{tls}/v1"_s, .text = u"SSL"_s, .code = QNetworkReply::SslHandshakeFailedError, .requests = 0};
    const QString timedOut = u"The request timed out."_s;
    const LoopbackResponse silent = LoopbackResponse::silent();
    QTest::newRow("silent server times out")
        << FailCase{.response = silent, .timeout = 300ms, .text = timedOut, .code = QNetworkReply::TimeoutError};
    QTest::newRow("server stalling mid-body times out")
        << FailCase{.response = LoopbackResponse::eventStream({chunk("first"), chunk("never")}, 60000),
                    .timeout = 300ms,
                    .text = timedOut,
                    .code = QNetworkReply::TimeoutError,
                    .events = 1};
    QTest::newRow("cancelled by someone else, not a time-out")
        << FailCase{.response = silent,
                    .text = u"The connection to the provider was closed before the reply was complete."_s,
                    .code = QNetworkReply::OperationCanceledError,
                    .abortedElsewhere = true};
    QTest::newRow("connection dropped mid-body")
        << FailCase{.response = dropped, .code = QNetworkReply::RemoteHostClosedError, .events = 1};

    const QString unknownScheme = u"The Base URL must start with http:// or https://."_s;
    for (const char *base : {"api.example.com/v1", "ftp://127.0.0.1/v1"})
        QTest::addRow("base URL %s", base)
            << FailCase{.base = QString::fromLatin1(base), .text = unknownScheme, .code = 301, .requests = 0};
    // Qt would open a connection to that host for this scheme, and then report no error at all.
    QTest::newRow("base URL preconnect-http://") << FailCase{
        .base = u"preconnect-{server}/v1"_s, .text = unknownScheme, .code = 301, .requests = 0, .connections = 0};
    const QString badKey =
        u"The API key contains a line break or another control character. Paste it again in Settings."_s;
    for (const char *key : {"sk-abc\r\nX-Injected: yes", "sk-abc\n", "sk-\ttab", "sk-\u0085next-line"})
        QTest::addRow("key %s refused", QByteArray(key).toPercentEncoding().constData())
            << FailCase{.key = QString::fromUtf8(key), .text = badKey, .requests = 0};

    // The limits, shrunk: the texts name the shipped sizes, which are these. That a stream stops at
    // a limit without waiting for the body's end is checked with bodies that never end.
    const TransferLimits shipped;
    const qsizetype mb = 1024 * 1024;
    QVERIFY(shipped.lineBytes == 16 * mb && shipped.replyTextBytes == 32 * mb && shipped.errorBodyBytes == 16 * mb &&
            shipped.modelListBytes == 16 * mb);
    const QString lineTooLong = u"The provider sent a line longer than 16 MB."_s;
    // A line of exactly the limit is read, also while its "\r" waits for the "\n" of a later read.
    const QByteArray head = R"(data: {"choices":[{"delta":{"content":")", tail = R"("}}]})";
    const QByteArray exact = head + QByteArray(1024 - head.size() - tail.size(), 'x') + tail;
    QTest::newRow("line of exactly the limit, then one byte more")
        << FailCase{.response = LoopbackResponse::eventStream({exact + "\r", "\n" + QByteArray(1025, 'y') + "\n"}, 20),
                    .limits = {.lineBytes = 1024},
                    .text = lineTooLong,
                    .events = 1};
    // "é" is two bytes of text: the limit counts UTF-8, not characters.
    QTest::newRow("reply text passes the limit, text so far delivered") << FailCase{
        .response = LoopbackResponse::eventStream({chunk("\xC3\xA9\xC3\xA9"), chunk("\xC3\xA9"), chunk("x")}),
        .limits = {.replyTextBytes = 5},
        .text = u"The reply passed 32 MB and was stopped."_s,
        .events = 1};
    QTest::newRow("error body of exactly the limit")
        << FailCase{.response = LoopbackResponse::text(502, "0123456789abcdef"),
                    .limits = {.errorBodyBytes = 16},
                    .text = u"Provider returned HTTP 502: 0123456789abcdef"_s};
}
void tst_ChatStream::fails()
{
    QFETCH(FailCase, row);
    LoopbackServer server;
    if (!row.base.startsWith(u"{tls}"))
        QVERIFY(server.listen());
    else if (!server.listenTls(loopbackCertificateFile(), loopbackKeyFile()))
        QSKIP(qPrintable(u"TLS server unavailable: "_s + server.errorString()));
    LoopbackServer elsewhere;
    QVERIFY(elsewhere.listen());
    for (auto &header : row.response.headers)
        header.second.replace("{elsewhere}", elsewhere.url().toEncoded());
    server.setResponse(row.response);
    quint16 closedPort = 0;
    {
        LoopbackServer closed;
        QVERIFY(closed.listen());
        closedPort = closed.port();
    }
    const QString base = QString(row.base)
                             .replace(u"{server}"_s, server.url().toString())
                             .replace(u"{tls}"_s, server.url().toString())
                             .replace(u"{closed}"_s, u"http://127.0.0.1:%1"_s.arg(closedPort))
                             .replace(u"{dir}"_s, QUrl::fromLocalFile(m_dir.path()).toString());

    if (row.abortedElsewhere) {
        connect(&server, &LoopbackServer::requestReceived, this, [] {
            for (QNetworkReply *reply : NetworkAccess::manager().findChildren<QNetworkReply *>())
                reply->abort();
        });
    }
    const StreamRecorder recorder =
        runStream(provider(ProviderWire::openAI, base, row.key), ChatService(row.timeout, row.limits));
    QVERIFY(recorder.error.has_value());
    const auto *transfer = std::get_if<TransferError>(&*recorder.error);
    QCOMPARE(transfer ? int(transfer->code) : -1, row.code);
    if (transfer)
        QVERIFY2(!recorder.errorText().isEmpty() && recorder.errorText().contains(row.text),
                 qPrintable(recorder.errorText()));
    else
        QCOMPARE(recorder.errorText(), row.text);
    QCOMPARE(recorder.events.size(), row.events);
    QCOMPARE(server.requests().size(), row.requests);
    if (row.connections >= 0)
        QCOMPARE(server.connectionCount(), row.connections);
    QCOMPARE(elsewhere.connectionCount(), 0);
}

void tst_ChatStream::endlessChunkedBody_stopsTheTransfer_data()
{
    QTest::addColumn<EndlessCase>("row");
    const qsizetype mb = 1024 * 1024;
    const QByteArray event = chunk(QByteArray(64 * 1024, 'w'));
    QTest::newRow("data: line that never ends, 1 MB chunks") << EndlessCase{
        .response = LoopbackResponse::endless(200, R"(data: {"choices":[{"delta":{"content":")", QByteArray(mb, 'x')),
        .limits = {.lineBytes = 4 * mb},
        .text = u"The provider sent a line longer than 16 MB."_s};
    QTest::newRow("500 body that never ends")
        << EndlessCase{.response = LoopbackResponse::endless(500, "busy", QByteArray(mb, 'e'), "text/plain"),
                       .limits = {.errorBodyBytes = 4 * mb},
                       .text = u"Provider returned HTTP 500 with a body over 16 MB."_s};
    QTest::newRow("well-formed 64 KB events without end")
        << EndlessCase{.response = LoopbackResponse::endless(200, event, event),
                       .limits = {.replyTextBytes = 4 * mb},
                       .text = u"The reply passed 32 MB and was stopped."_s};
    QTest::newRow("stopped at the first event, then a line that never ends")
        << EndlessCase{.response = LoopbackResponse::endless(
                           200, chunk("hi") + R"(data: {"choices":[{"delta":{"content":")", QByteArray(mb, 'x')),
                       .stopAtFirstEvent = true};
}
// A fast server that never ends a chunked body: the stream ends at its limit, or at Stop, and the
// transfer ends with it, long before the server's own limit: nothing more is read.
void tst_ChatStream::endlessChunkedBody_stopsTheTransfer()
{
    QFETCH(EndlessCase, row);
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(row.response);
    QSignalSpy closed(&server, &LoopbackServer::answered);

    StreamRecorder recorder;
    QObject consumer;
    QPointer<ChatStream> stream =
        ChatService(60s, row.limits).stream(provider(ProviderWire::openAI, server.url().toString()), hi, &consumer);
    recorder.attach(stream, &consumer);
    if (row.stopAtFirstEvent)
        connect(stream, &ChatStream::eventReceived, &consumer, [&] { stream->cancel(); });
    QTRY_COMPARE_WITH_TIMEOUT(recorder.finishedCount, 1, 30000);
    QCOMPARE(recorder.errorText(), row.text);
    QTRY_COMPARE_WITH_TIMEOUT(closed.size(), 1, 30000);
    // What the limit lets in, plus what the sockets and Qt hold on the way.
    QVERIFY2(server.bodyBytesSent() < 64 * 1024 * 1024, qPrintable(QString::number(server.bodyBytesSent())));
}

void tst_ChatStream::twoStreams_data()
{
    QTest::addColumn<bool>("cancel");
    QTest::newRow("second cancelled from its own event slot") << true;
    QTest::newRow("second's consumer destroyed") << false;
}
// Two streams at once keep their events apart. The second one's consumer has enough after three
// events: cancelled, it ends normally on a later turn; with its consumer gone, it says nothing more.
void tst_ChatStream::twoStreams()
{
    QFETCH(bool, cancel);
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setHandler([](const LoopbackRequest &request) {
        const QByteArray tag = request.body.contains("\"model\":\"a\"") ? "a" : "b";
        QList<QByteArray> chunks;
        for (int i = 0; i < 20; ++i)
            chunks.append(chunk(tag + QByteArray::number(i) + ' '));
        return LoopbackResponse::eventStream(chunks, 5);
    });

    QObject consumerA;
    auto *consumerB = new QObject;
    Provider p = provider(ProviderWire::openAI, server.url().toString());
    p.model = u"a"_s;
    StreamRecorder a, b;
    a.attach(ChatService().stream(p, hi, &consumerA), &consumerA);
    p.model = u"b"_s;
    QPointer<ChatStream> second = ChatService().stream(p, hi, consumerB);
    b.attach(second, this); // outlives consumerB, to see anything emitted after it is gone
    std::optional<bool> finishedAtCancel;
    connect(second, &ChatStream::eventReceived, this, [&] {
        if (b.events.size() != 3)
            return;
        if (!cancel) {
            delete std::exchange(consumerB, nullptr);
            return;
        }
        second->cancel();
        finishedAtCancel = b.finishedCount > 0 || !second->isFinished();
        second->cancel();
    });
    QTRY_VERIFY(a.finishedCount == 1 && second.isNull());
    QTest::qWait(50);

    QString expected;
    for (int i = 0; i < 20; ++i)
        expected += u"a%1 "_s.arg(i);
    QCOMPARE(a.text(), expected);
    QCOMPARE(b.text(), u"b0 b1 b2 "_s);
    QCOMPARE(b.finishedCount, cancel ? 1 : 0);
    QVERIFY(!a.error && !b.error);
    QCOMPARE(finishedAtCancel, cancel ? std::optional(false) : std::nullopt);
    delete consumerB;
}

void tst_ChatStream::readsAFastStreamInFewPieces_data()
{
    QTest::addColumn<bool>("tls");
    QTest::newRow("plain") << false;
    // A TLS socket keeps a buffer of its own in front of the one Qt holds back.
    QTest::newRow("TLS") << true;
}
// Events that come faster than the read interval are taken a batch at a time, none lost and in
// order.
void tst_ChatStream::readsAFastStreamInFewPieces()
{
    QFETCH(bool, tls);
    constexpr int count = 40;
    QList<QByteArray> chunks;
    QString expected;
    for (int i = 0; i < count; ++i) {
        chunks.append(chunk(QByteArray::number(i) + ' '));
        expected += u"%1 "_s.arg(i);
    }
    chunks.append(sse("[DONE]"));
    LoopbackServer server;
    const QSslConfiguration shipped = QSslConfiguration::defaultConfiguration();
    const auto restore = qScopeGuard([&] { QSslConfiguration::setDefaultConfiguration(shipped); });
    if (tls) {
        if (!server.listenTls(loopbackCertificateFile(), loopbackKeyFile()))
            QSKIP(qPrintable(u"TLS server unavailable: "_s + server.errorString()));
        QSslConfiguration trusting = shipped;
        trusting.addCaCertificates(loopbackCertificateFile());
        QSslConfiguration::setDefaultConfiguration(trusting);
    } else {
        QVERIFY(server.listen());
    }
    server.setResponse(LoopbackResponse::eventStream(chunks, 5));

    QObject consumer;
    StreamRecorder recorder;
    QList<qint64> arrivals;
    QElapsedTimer clock;
    clock.start();
    // Every hand-over from Qt's HTTP thread wakes this thread, so it should not come per packet.
    int handOvers = 0;
    connect(&server, &LoopbackServer::requestReceived, &consumer, [&] {
        for (QNetworkReply *reply : NetworkAccess::manager().findChildren<QNetworkReply *>())
            connect(reply, &QNetworkReply::readyRead, &consumer, [&] { ++handOvers; });
    });
    ChatStream *stream = ChatService().stream(provider(ProviderWire::openAI, server.url().toString()), hi, &consumer);
    recorder.attach(stream, &consumer);
    connect(stream, &ChatStream::eventReceived, &consumer, [&] { arrivals.append(clock.nsecsElapsed()); });
    QTRY_COMPARE_WITH_TIMEOUT(recorder.finishedCount, 1, 20000);
    QCOMPARE(recorder.text(), expected);
    QVERIFY(!recorder.error);
    QVERIFY2(handOvers <= count / 2, qPrintable(u"%1 hand-overs"_s.arg(handOvers)));

    // Events handed over in one read arrive within a millisecond of each other.
    int reads = 1;
    for (qsizetype i = 1; i < arrivals.size(); ++i)
        reads += arrivals.at(i) - arrivals.at(i - 1) > 1'000'000;
    QVERIFY2(reads <= count / 2, qPrintable(u"%1 reads"_s.arg(reads)));
}

void tst_ChatStream::mockProviderProcess_streamsItsReply()
{
    QProcess mock;
    mock.start(QStringLiteral(VERBOLT_MOCK_PROVIDER), {u"--tokens-per-second"_s, u"2000"_s});
    QVERIFY(mock.waitForStarted() && mock.waitForReadyRead(10000));
    const QString base = u"http://127.0.0.1:%1/v1"_s.arg(QString::fromUtf8(mock.readLine().trimmed()));
    for (const ProviderWire wire : {ProviderWire::openAI, ProviderWire::anthropic}) {
        const StreamRecorder recorder = runStream(provider(wire, base));
        QCOMPARE(recorder.errorText(), QString());
        QCOMPARE(recorder.text(), MockProviderOptions().reply);
        bool prompt = false, completion = false;
        for (const ChatEvent &event : recorder.events) {
            prompt |= event.usage.promptTokens.value_or(0) > 0;
            completion |= event.usage.completionTokens.value_or(0) > 0;
        }
        QVERIFY(prompt && completion);
    }
    mock.kill();
    mock.waitForFinished();
}

QTEST_GUILESS_MAIN(tst_ChatStream)
#include "tst_chatstream.moc"
