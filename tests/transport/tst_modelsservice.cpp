#include "loopbackserver.h"
#include "transport/modelsfetch.h"
#include "transport/modelsservice.h"

#include <QPointer>
#include <QTest>

namespace {

Provider provider(ProviderWire wire, const QString &baseURL, const QString &key = QStringLiteral("sk-test"))
{
    Provider p;
    p.wire = wire;
    p.baseURL = baseURL;
    p.apiKey = key;
    return p;
}

struct Outcome
{
    int finishedCount = 0;
    ModelsFetch::Result result;

    QStringList models() const
    {
        const auto *list = std::get_if<QStringList>(&result);
        return list ? *list : QStringList{QStringLiteral("<failed>")};
    }
    QString errorText() const
    {
        const auto *error = std::get_if<ServiceError>(&result);
        return error ? errorDescription(*error) : QString();
    }
};

Outcome fetch(const ModelsService &service, const Provider &p)
{
    Outcome outcome;
    QObject consumer;
    QPointer<ModelsFetch> running = service.fetchModels(p, &consumer);
    QObject::connect(running, &ModelsFetch::finished, &consumer, [&](const ModelsFetch::Result &result) {
        ++outcome.finishedCount;
        outcome.result = result;
    });
    [&] { QTRY_COMPARE_WITH_TIMEOUT(outcome.finishedCount, 1, 10000); }();
    [&] { QTRY_VERIFY(running.isNull()); }();
    return outcome;
}

} // namespace

Q_DECLARE_METATYPE(LoopbackResponse)

class tst_ModelsService : public QObject
{
    Q_OBJECT

private slots:
    void fetch_data();
    void fetch();
    void requestCarriesOnlyTheDialectsKey_data();
    void requestCarriesOnlyTheDialectsKey();
    void transferFailures();
    void destroyedConsumer_stopsSilently();
    void cancel_endsWithQtsCancellationLater();
};

void tst_ModelsService::fetch_data()
{
    QTest::addColumn<LoopbackResponse>("response");
    QTest::addColumn<QStringList>("models");
    QTest::addColumn<QString>("error");

    const auto json = [](const QByteArray &body) { return LoopbackResponse::text(200, body, "application/json"); };
    const QString shape = QStringLiteral("Could not parse the provider response: Unexpected /models response shape");

    QTest::newRow("sorted by code point, upper case first")
        << json(R"({"data":[{"id":"zeta"},{"id":"Alpha"},{"id":"beta"}]})")
        << QStringList{QStringLiteral("Alpha"), QStringLiteral("beta"), QStringLiteral("zeta")} << QString();
    QTest::newRow("beyond the BMP sorts after U+FFxx")
        << json(R"({"data":[{"id":"\ud83d\ude00"},{"id":"\uff21"}]})")
        << QStringList{QStringLiteral("\uff21"), QStringLiteral("\U0001F600")} << QString();
    QTest::newRow("duplicates stay") << json(R"({"data":[{"id":"m"},{"id":"a"},{"id":"m"}]})")
                                     << QStringList{QStringLiteral("a"), QStringLiteral("m"), QStringLiteral("m")}
                                     << QString();
    QTest::newRow("ids that are no strings are left out")
        << json(R"({"object":"list","data":[{"id":7},{"name":"x"},{"id":"gpt","owned_by":"me"},{"id":null}]})")
        << QStringList{QStringLiteral("gpt")} << QString();
    QTest::newRow("empty data") << json(R"({"data":[]})") << QStringList{} << QString();
    QTest::newRow("top-level array") << json(R"([{"id":"a"}])") << QStringList{} << shape;
    QTest::newRow("string element") << json(R"({"data":[{"id":"a"},"b"]})") << QStringList{} << shape;
    QTest::newRow("data not an array") << json(R"({"data":{"id":"a"}})") << QStringList{} << shape;
    QTest::newRow("no data") << json(R"({"models":[]})") << QStringList{} << shape;
    QTest::newRow("not JSON") << json("<html>oops</html>") << QStringList{} << shape;
    QTest::newRow("404 plain text") << LoopbackResponse::text(404, "Not Found\n") << QStringList{}
                                    << QStringLiteral("Provider returned HTTP 404: Not Found\n");
    QTest::newRow("500 body not UTF-8 is empty") << LoopbackResponse::text(500, "bad \xff byte") << QStringList{}
                                                 << QStringLiteral("Provider returned HTTP 500: ");
}

void tst_ModelsService::fetch()
{
    QFETCH(LoopbackResponse, response);
    QFETCH(QStringList, models);
    QFETCH(QString, error);

    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(response);
    const Outcome outcome =
        ::fetch(ModelsService(), provider(ProviderWire::openAI, server.url(QStringLiteral("/v1/")).toString()));
    QCOMPARE(outcome.errorText(), error);
    if (error.isEmpty())
        QCOMPARE(outcome.models(), models);
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests().constFirst().path, QByteArray("/v1/models"));
}

void tst_ModelsService::requestCarriesOnlyTheDialectsKey_data()
{
    QTest::addColumn<int>("wire");
    QTest::addColumn<QByteArrayList>("present");
    QTest::addColumn<QByteArrayList>("absent");
    QTest::newRow("openAI") << int(ProviderWire::openAI) << QByteArrayList{"Authorization: Bearer sk-test"}
                            << QByteArrayList{"x-api-key", "anthropic-version", "Content-Type"};
    QTest::newRow("anthropic") << int(ProviderWire::anthropic)
                               << QByteArrayList{"x-api-key: sk-test", "anthropic-version: 2023-06-01"}
                               << QByteArrayList{"Authorization", "Content-Type"};
}

void tst_ModelsService::requestCarriesOnlyTheDialectsKey()
{
    QFETCH(int, wire);
    QFETCH(QByteArrayList, present);
    QFETCH(QByteArrayList, absent);

    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(LoopbackResponse::text(200, R"({"data":[]})"));
    const Outcome outcome = ::fetch(ModelsService(), provider(ProviderWire(wire), server.url().toString()));
    QCOMPARE(outcome.models(), QStringList{});

    QCOMPARE(server.requests().size(), 1);
    const LoopbackRequest &request = server.requests().constFirst();
    QCOMPARE(request.method, QByteArray("GET"));
    QVERIFY(request.body.isEmpty());
    for (const QByteArray &header : present) {
        const qsizetype colon = header.indexOf(':');
        QCOMPARE(request.header(header.left(colon)), header.mid(colon + 2));
    }
    for (const QByteArray &header : absent)
        QVERIFY2(!request.hasHeader(header), header.constData());
}

void tst_ModelsService::transferFailures()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    server.setResponse(LoopbackResponse::text(200, R"({"data":[]})"));

    // Refused before anything reaches the network.
    const Outcome noKey = ::fetch(ModelsService(), provider(ProviderWire::openAI, server.url().toString(), QString()));
    QCOMPARE(noKey.errorText(), QStringLiteral("No API key set for this provider. Open Settings and paste your key."));
    const Outcome blank = ::fetch(ModelsService(), provider(ProviderWire::openAI, QStringLiteral("  \n")));
    QCOMPARE(blank.errorText(), QStringLiteral("The provider Base URL is empty or invalid."));
    QCOMPARE(server.connectionCount(), 0);

    quint16 closedPort = 0;
    {
        LoopbackServer closed;
        QVERIFY(closed.listen());
        closedPort = closed.port();
    }
    const Outcome refused =
        ::fetch(ModelsService(), provider(ProviderWire::openAI, QStringLiteral("http://127.0.0.1:%1").arg(closedPort)));
    QVERIFY(std::holds_alternative<ServiceError>(refused.result));
    QCOMPARE(refused.errorText(), QStringLiteral("Connection refused"));

    LoopbackServer silent;
    QVERIFY(silent.listen());
    LoopbackResponse never;
    never.neverAnswer = true;
    silent.setResponse(never);
    const Outcome timedOut =
        ::fetch(ModelsService(std::chrono::milliseconds(300)), provider(ProviderWire::openAI, silent.url().toString()));
    const auto *error = std::get_if<ServiceError>(&timedOut.result);
    QVERIFY(error && std::holds_alternative<TransferError>(*error));
    QCOMPARE(std::get<TransferError>(*error).code, QNetworkReply::OperationCanceledError);
}

void tst_ModelsService::destroyedConsumer_stopsSilently()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    LoopbackResponse never;
    never.neverAnswer = true;
    server.setResponse(never);

    auto *consumer = new QObject;
    int ends = 0;
    QPointer<ModelsFetch> running =
        ModelsService().fetchModels(provider(ProviderWire::openAI, server.url().toString()), consumer);
    connect(running, &ModelsFetch::finished, this, [&] { ++ends; });
    QTRY_COMPARE(server.requests().size(), 1);
    delete consumer;
    QTRY_VERIFY(running.isNull());
    QTest::qWait(20);
    QCOMPARE(ends, 0);
}

void tst_ModelsService::cancel_endsWithQtsCancellationLater()
{
    LoopbackServer server;
    QVERIFY(server.listen());
    LoopbackResponse never;
    never.neverAnswer = true;
    server.setResponse(never);

    QObject consumer;
    Outcome outcome;
    ModelsFetch *running =
        ModelsService().fetchModels(provider(ProviderWire::openAI, server.url().toString()), &consumer);
    connect(running, &ModelsFetch::finished, &consumer, [&](const ModelsFetch::Result &result) {
        ++outcome.finishedCount;
        outcome.result = result;
    });
    QTRY_COMPARE(server.requests().size(), 1);
    running->cancel();
    running->cancel();
    QCOMPARE(outcome.finishedCount, 0);
    QTRY_COMPARE(outcome.finishedCount, 1);
    const auto *error = std::get_if<ServiceError>(&outcome.result);
    QVERIFY(error && std::holds_alternative<TransferError>(*error));
    QCOMPARE(std::get<TransferError>(*error).code, QNetworkReply::OperationCanceledError);
    QTest::qWait(20);
    QCOMPARE(outcome.finishedCount, 1);
}

QTEST_GUILESS_MAIN(tst_ModelsService)
#include "tst_modelsservice.moc"
