#include "model/json.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

Run inspect(const QStringList &args, const QByteArray &input)
{
    QProcess process;
    process.start(QStringLiteral(VERBOLT_INSPECT), args);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(30000);
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

const QByteArray userMessage = R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","role":"user","content":" Hi\nthere "})";

} // namespace

class tst_Inspect : public QObject
{
    Q_OBJECT

private slots:
    void contract_data();
    void contract();
    void requestDescribesTheWholeRequest();
};

void tst_Inspect::contract_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output"); // exact stdout; empty: not compared

    const auto args = [](std::initializer_list<const char *> list) {
        QStringList out;
        for (const char *a : list)
            out.append(QString::fromUtf8(a));
        return out;
    };
    QTest::newRow("sse lines") << args({"sse", "--wire", "openAI"})
                               << QByteArray("data: {\"choices\":[{\"delta\":{\"content\":\"a\"}}]}\r\n"
                                             "data: {\"usage\":{\"completion_tokens\":5}}\ndata: [DONE]")
                               << 0
                               << QByteArray(
                                      "{\"delta\":\"a\"}\n{\"usage\":{\"completionTokens\":5}}\n{\"done\":true}\n");
    QTest::newRow("sse final line feed") << args({"sse", "--wire", "anthropic"}) << QByteArray("event: x\n") << 0
                                         << QByteArray("{\"skip\":true}\n{\"skip\":true}\n");
    QTest::newRow("sse without wire") << args({"sse"}) << QByteArray() << 2 << QByteArray();
    QTest::newRow("sse unknown wire") << args({"sse", "--wire", "OpenAI"}) << QByteArray() << 2 << QByteArray();
    QTest::newRow("title") << args({"title"}) << QByteArray("[" + userMessage + "]") << 0
                           << QByteArray("\"Hi there\"\n");
    QTest::newRow("no title") << args({"title"}) << QByteArray("[]") << 0 << QByteArray("null\n");
    QTest::newRow("decode message") << args({"decode", "message"}) << userMessage << 0
                                    << QByteArray(userMessage + "\n");
    QTest::newRow("decode usage keeps only present counts")
        << args({"decode", "usage"}) << QByteArray(R"({"totalTokens":null,"promptTokens":7})") << 0
        << QByteArray("{\"promptTokens\":7}\n");
    QTest::newRow("decode failure is a result")
        << args({"decode", "message"}) << QByteArray(R"({"role":"user","content":""})") << 1 << QByteArray();
    QTest::newRow("not json is bad usage") << args({"decode", "provider"}) << QByteArray("{nope") << 2 << QByteArray();
    QTest::newRow("unknown subcommand") << args({"frobnicate"}) << QByteArray() << 2 << QByteArray();
    QTest::newRow("unknown decode kind") << args({"decode", "thing"}) << QByteArray("{}") << 2 << QByteArray();
}

void tst_Inspect::contract()
{
    QFETCH(QStringList, args);
    QFETCH(QByteArray, input);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
    const Run run = inspect(args, input);
    QCOMPARE(run.exitCode, exitCode);
    if (!output.isEmpty())
        QCOMPARE(run.out, output);
    if (exitCode == 1) {
        const auto doc = Json::Document::parse(run.out);
        QVERIFY(doc);
        QVERIFY(doc->root()["error"].isString());
    }
    if (exitCode == 2) {
        QVERIFY(run.out.isEmpty());
        QVERIFY(!run.err.isEmpty());
    }
}

void tst_Inspect::requestDescribesTheWholeRequest()
{
    const QByteArray input = R"({"provider":{"id":"0E984725-C51C-4BF4-9960-E1C80E27ABA0","name":"G","wire":"openAI",)"
                             R"("baseURL":"https://api.example.com/v1/","model":"m","apiKey":" k "},"messages":[)" +
                             userMessage + "]}";
    const Run run = inspect({QStringLiteral("request")}, input);
    QCOMPARE(run.exitCode, 0);
    const auto doc = Json::Document::parse(run.out);
    QVERIFY(doc);
    const Json::Value root = doc->root();
    QCOMPARE(root["url"].toString(), QStringLiteral("https://api.example.com/v1/chat/completions"));
    QCOMPARE(root["method"].toString(), QStringLiteral("POST"));
    QCOMPARE(root["timeout"].toInt64(), qint64(60));
    const auto headers = root["headers"].elements();
    QCOMPARE(headers.size(), 2);
    QCOMPARE(headers[1].elements()[1].toString(), QStringLiteral("Bearer  k "));
    QCOMPARE(root["body"]["messages"].elements()[0]["content"].toString(), QStringLiteral(" Hi\nthere "));

    const Run blank =
        inspect({QStringLiteral("request")}, QByteArray(input).replace("https://api.example.com/v1/", " "));
    QCOMPARE(blank.exitCode, 1);
    QCOMPARE(blank.out, QByteArray("{\"error\":\"The provider Base URL is empty or invalid.\"}\n"));
}

QTEST_GUILESS_MAIN(tst_Inspect)
#include "tst_inspect.moc"
