#include "loopbackserver.h"
#include "transport/modelsservice.h"
#include "transportrecorders.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using namespace TransportTest;

namespace {

struct FetchCase
{
    ProviderWire wire = ProviderWire::openAI;
    QString key = u"sk-test"_s;
    LoopbackResponse response = {};
    std::chrono::milliseconds timeout = 60s;
    TransferLimits limits = {};
    QStringList models = {};
    QString error = {};
    int requests = 1;
    bool endless = false; // the body never ends: the fetch must close the connection itself
};

} // namespace

Q_DECLARE_METATYPE(FetchCase)

class tst_ModelsService : public QObject
{
    Q_OBJECT

private slots:
    void fetch_data();
    void fetch();
    void stopEarly_data();
    void stopEarly();
};

void tst_ModelsService::fetch_data()
{
    QTest::addColumn<FetchCase>("row");
    const auto json = [](const char *body) { return LoopbackResponse::text(200, body, "application/json"); };
    const auto list = [json](const char *body, const char *models) {
        return FetchCase{.response = json(body), .models = QString::fromUtf8(models).split(u' ')};
    };
    const auto shapeError = [json](const char *body) {
        return FetchCase{.response = json(body),
                         .error = u"Could not parse the provider response: Unexpected /models response shape"_s};
    };

    // By code point: upper case first, beyond the BMP after U+FFxx; duplicates stay.
    QTest::newRow("sorted") << list(
        R"({"data":[{"id":"zeta"},{"id":"\ud83d\ude00"},{"id":"m"},{"id":"alpha"},{"id":"\uff21"},{"id":"m"},{"id":"Zed"}]})",
        "Zed alpha m m zeta \uff21 \U0001F600");
    QTest::newRow("ids that are no strings are left out")
        << list(R"({"object":"list","data":[{"id":7},{"name":"x"},{"id":"gpt","owned_by":"me"},{"id":null}]})", "gpt");
    QTest::newRow("anthropic dialect, empty data")
        << FetchCase{.wire = ProviderWire::anthropic, .response = json(R"({"data":[]})")};
    for (const char *body : {R"([{"id":"a"}])", R"({"data":[{"id":"a"},"b"]})", R"({"data":{"id":"a"}})",
                             R"({"models":[]})", "<html>oops</html>"})
        QTest::addRow("shape error: %s", body) << shapeError(body);
    QTest::newRow("404 plain text") << FetchCase{.response = LoopbackResponse::text(404, "Not Found\n"),
                                                 .error = u"Provider returned HTTP 404: Not Found\n"_s};
    QTest::newRow("500 body not UTF-8 is empty") << FetchCase{.response = LoopbackResponse::text(500, "bad \xff byte"),
                                                              .error = u"Provider returned HTTP 500: "_s};
    // Refused before anything is sent.
    QTest::newRow("no key") << FetchCase{.key = QString(),
                                         .error =
                                             u"No API key set for this provider. Open Settings and paste your key."_s,
                                         .requests = 0};
    QTest::newRow("silent server times out")
        << FetchCase{.response = LoopbackResponse::silent(), .timeout = 300ms, .error = u"The request timed out."_s};

    // The limits, shrunk: the texts name the shipped size. Past a limit the fetch stops reading at
    // once: the bodies never end, chunked, as fast as the client takes them.
    QByteArray models;
    for (int i = 0; i < 20000; ++i)
        models += R"({"id":"model-)" + QByteArray::number(i) + R"("},)";
    QTest::newRow("model list that never ends, chunked")
        << FetchCase{.response = LoopbackResponse::endless(200, R"({"data":[)", models, "application/json"),
                     .limits = {.modelListBytes = 4 * 1024 * 1024},
                     .error = u"The model list is larger than 16 MB."_s,
                     .endless = true};
    QTest::newRow("error body that never ends, chunked")
        << FetchCase{.response = LoopbackResponse::endless(503, "busy", QByteArray(1024 * 1024, 'e'), "text/plain"),
                     .limits = {.errorBodyBytes = 4 * 1024 * 1024},
                     .error = u"Provider returned HTTP 503 with a body over 16 MB."_s,
                     .endless = true};
    QTest::newRow("model list of exactly the limit") << FetchCase{
        .response = json(R"({"data":[{"id":"a"}]})"), .limits = {.modelListBytes = 21}, .models = {u"a"_s}};
}
void tst_ModelsService::fetch()
{
    QFETCH(FetchCase, row);
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(row.response);
    QSignalSpy closed(&server, &LoopbackServer::answered);

    FetchRecorder outcome;
    QObject consumer;
    QPointer<ModelsFetch> running =
        ModelsService(row.timeout, row.limits)
            .fetchModels(provider(row.wire, server.url(u"/v1/"_s).toString(), row.key), &consumer);
    outcome.attach(running, &consumer);
    QTRY_COMPARE_WITH_TIMEOUT(outcome.finishedCount, 1, 10000);
    QTRY_VERIFY(running.isNull());
    QCOMPARE(outcome.error, row.error);
    QCOMPARE(outcome.models, row.models);
    if (row.endless) {
        QTRY_COMPARE_WITH_TIMEOUT(closed.size(), 1, 30000);
        QVERIFY2(server.bodyBytesSent() < 64 * 1024 * 1024, qPrintable(QString::number(server.bodyBytesSent())));
    }

    // A GET with only the dialect's own key headers, unless refused before sending.
    QCOMPARE(server.connectionCount(), row.requests);
    if (!row.requests)
        return;
    const LoopbackRequest &request = server.requests().constFirst();
    const bool anthropic = row.wire == ProviderWire::anthropic;
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.path, QByteArray("/v1/models"));
    QVERIFY(request.body.isEmpty() && request.header("Content-Type").isNull());
    QCOMPARE(request.header("Authorization"), anthropic ? QByteArray() : QByteArray("Bearer sk-test"));
    QCOMPARE(request.header("x-api-key"), anthropic ? QByteArray("sk-test") : QByteArray());
    QCOMPARE(request.header("anthropic-version"), anthropic ? QByteArray("2023-06-01") : QByteArray());
}

void tst_ModelsService::stopEarly_data()
{
    QTest::addColumn<bool>("cancel");
    QTest::newRow("cancel: Qt's cancellation, later") << true;
    QTest::newRow("consumer destroyed: nothing") << false;
}
void tst_ModelsService::stopEarly()
{
    QFETCH(bool, cancel);
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(LoopbackResponse::silent());

    auto *consumer = new QObject;
    FetchRecorder outcome;
    QPointer<ModelsFetch> running =
        ModelsService().fetchModels(provider(ProviderWire::openAI, server.url().toString()), consumer);
    outcome.attach(running, this); // outlives the consumer, to see anything emitted after it is gone
    QTRY_COMPARE(server.requests().size(), 1);
    if (cancel) {
        running->cancel();
        running->cancel();
    } else {
        delete std::exchange(consumer, nullptr);
    }
    QCOMPARE(outcome.finishedCount, 0);
    QTRY_VERIFY(running.isNull());
    QTest::qWait(20);
    QCOMPARE(outcome.finishedCount, cancel ? 1 : 0);
    QCOMPARE(outcome.error, cancel ? u"Operation canceled"_s : QString());
    delete consumer;
}

QTEST_GUILESS_MAIN(tst_ModelsService)
#include "tst_modelsservice.moc"
