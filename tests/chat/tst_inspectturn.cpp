// verbolt-inspect turn against the mock provider, in a private profile: what a window's turn
// leaves in the real stores.
#include "mockprovider.h"
#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "storagetestsupport.h"
#include "toolrun.h"

#include <QTest>

class tst_InspectTurn final : public QObject
{
    Q_OBJECT

private slots:
    void turn_storesUserMessageAndStreamedReply();
};

void tst_InspectTurn::turn_storesUserMessageAndStreamedReply()
{
    const StorageTest::Profile profile;
    MockProvider mock;
    QVERIFY(mock.listen());
    QFile archive(profile.root() + QStringLiteral("/archive.json"));
    QVERIFY(archive.open(QIODevice::WriteOnly));
    archive.write(
        QStringLiteral(R"({"version":1,"conversations":[],"providers":[{"id":"%1","name":"Mock","wire":"openAI",)"
                       R"("baseURL":"%2","model":"mock-small","cachedModels":[],"apiKey":"sk-mock"}]})")
            .arg(JsonCoding::uuidText(QUuid::createUuid()), mock.baseURL())
            .toUtf8());
    archive.close();
    const auto tool = [](const QStringList &args) { return runTool(QStringLiteral(VERBOLT_INSPECT), args); };
    QCOMPARE(tool({QStringLiteral("archive-import"), QStringLiteral("--file"), archive.fileName()}).exitCode, 0);

    const ToolRun turn = tool({QStringLiteral("turn"), QStringLiteral("--text"), QStringLiteral(" Tell me\nmore ")});
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
    QCOMPARE(question.content, QStringLiteral("Tell me\nmore"));
    QCOMPARE(reply.role, ChatRole::assistant);
    QCOMPARE(reply.content, mock.options().reply);
    QVERIFY(reply.usage && reply.usage->promptTokens && reply.usage->completionTokens && reply.usage->totalTokens);

    QList<ChatMessage> shown;
    QVERIFY(fromJson(root["messages"], shown, error));
    QCOMPARE(shown, stored.messages);
}

QTEST_GUILESS_MAIN(tst_InspectTurn)
#include "tst_inspectturn.moc"
