#include "mockprovider.h"
#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "storagetestsupport.h"
#include "toolrun.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QByteArray userMessage = R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","role":"user","content":" Hi\nthere "})";

ToolRun inspect(const QStringList &args, const QByteArray &input = {})
{
    return runTool(QStringLiteral(VERBOLT_INSPECT), args, input);
}

} // namespace

class tst_Inspect : public QObject
{
    Q_OBJECT

private slots:
    void contract_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("output"); // exact stdout; empty: not compared
        const auto add = [](const char *name, const char *args, const QByteArray &input, int exitCode,
                            const QByteArray &output = {}) {
            QTest::newRow(name) << QString::fromLatin1(args).split(u' ') << input << exitCode << output;
        };
        add("sse lines", "sse --wire openAI",
            "data: {\"choices\":[{\"delta\":{\"content\":\"a\"}}]}\r\n"
            "data: {\"usage\":{\"completion_tokens\":5}}\ndata: [DONE]",
            0, "{\"delta\":\"a\"}\n{\"usage\":{\"completionTokens\":5}}\n{\"done\":true}\n");
        add("sse final line feed", "sse --wire anthropic", "event: x\n", 0, "{\"skip\":true}\n{\"skip\":true}\n");
        add("sse without wire", "sse", {}, 2);
        add("title", "title", "[" + userMessage + "]", 0, "\"Hi there\"\n");
        add("no title", "title", "[]", 0, "null\n");
        add("decode message", "decode message", userMessage, 0, userMessage + "\n");
        add("decode usage keeps only present counts", "decode usage", R"({"totalTokens":null,"promptTokens":7})", 0,
            "{\"promptTokens\":7}\n");
        add("decode failure is a result", "decode message", R"({"role":"user","content":""})", 1);
        add("not json is bad usage", "decode provider", "{nope", 2);
        add("unknown subcommand", "frobnicate", {}, 2);
        add("unknown decode kind", "decode thing", "{}", 2);
        const QByteArray request =
            R"({"provider":{"id":"0E984725-C51C-4BF4-9960-E1C80E27ABA0","name":"G","wire":"openAI",)"
            R"("baseURL":"https://api.example.com/v1/","model":"m","apiKey":" k "},"messages":[)" +
            userMessage + "]}";
        add("request", "request", request, 0,
            R"({"url":"https:\/\/api.example.com\/v1\/chat\/completions","method":"POST","headers":[["Content-Type",)"
            R"("application\/json"],["Authorization","Bearer  k "]],"timeout":60,"body":{"model":"m","stream":true,)"
            R"("stream_options":{"include_usage":true},"messages":[{"role":"user","content":" Hi\nthere "}]}})"
            "\n");
        add("request with a blank base URL", "request", QByteArray(request).replace("https://api.example.com/v1/", " "),
            1, "{\"error\":\"The provider Base URL is empty or invalid.\"}\n");
    }
    void contract()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, input);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, output);
        const ToolRun run = inspect(args, input);
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

    // A whole turn against the mock provider, in a private profile: what a window's turn leaves in the
    // real stores.
    void turn_storesUserMessageAndStreamedReply()
    {
        const StorageTest::Profile profile;
        MockProvider mock;
        QVERIFY(mock.listen());
        const QString archive = profile.root() + u"/archive.json"_s;
        QVERIFY(StorageTest::writeAll(
            archive, uR"({"version":1,"conversations":[],"providers":[{"id":"%1","name":"Mock","wire":"openAI",)"
                     R"("baseURL":"%2","model":"mock-small","cachedModels":[],"apiKey":"sk-mock"}]})"_s
                         .arg(JsonCoding::uuidText(QUuid::createUuid()), mock.baseURL())
                         .toUtf8()));
        QCOMPARE(inspect({u"archive-import"_s, u"--file"_s, archive}).exitCode, 0);

        const ToolRun turn = inspect({u"turn"_s, u"--text"_s, u" Tell me\nmore "_s});
        QCOMPARE(turn.exitCode, 0);
        Json::Parser parser;
        const Json::Value root = parser.parse(turn.out);
        QVERIFY2(root.isObject() && root["errorText"].isNull(), turn.out.constData());

        Conversation stored;
        QString error;
        QVERIFY2(fromJson(root["conversation"], stored, error), qPrintable(error));
        QCOMPARE(stored.messages.size(), 2);
        const ChatMessage question = stored.messages.first(), reply = stored.messages.last();
        QCOMPARE(question.role, ChatRole::user);
        QCOMPARE(question.content, u"Tell me\nmore"_s);
        QCOMPARE(reply.role, ChatRole::assistant);
        QCOMPARE(reply.content, mock.options().reply);
        QVERIFY(reply.usage && reply.usage->promptTokens && reply.usage->completionTokens && reply.usage->totalTokens);

        QList<ChatMessage> shown;
        QVERIFY(fromJson(root["messages"], shown, error));
        QCOMPARE(shown, stored.messages);
    }
};

QTEST_GUILESS_MAIN(tst_Inspect)
#include "tst_inspect.moc"
