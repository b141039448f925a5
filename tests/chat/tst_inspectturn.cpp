// verbolt-inspect turn against the mock provider, in a private profile: what a window's turn
// leaves in the real stores.
#include "mockprovider.h"
#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

// The tool's output when it exits with 0. Waits while this process's event loop keeps serving
// the mock provider.
std::optional<QByteArray> inspect(const QTemporaryDir &home, const QStringList &args)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VERBOLT_INSPECT), args);
    process.closeWriteChannel();
    const bool ended = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 30000);
    if (!ended || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return std::nullopt; // a process still running is killed with its QProcess
    return process.readAllStandardOutput();
}

} // namespace

class tst_InspectTurn final : public QObject
{
    Q_OBJECT

private slots:
    void turn_storesUserMessageAndStreamedReply_data();
    void turn_storesUserMessageAndStreamedReply();
};

void tst_InspectTurn::turn_storesUserMessageAndStreamedReply_data()
{
    QTest::addColumn<QString>("wire");
    QTest::addColumn<bool>("hasTotal");
    QTest::newRow("anthropic") << QStringLiteral("anthropic") << false;
    QTest::newRow("openAI") << QStringLiteral("openAI") << true;
}

void tst_InspectTurn::turn_storesUserMessageAndStreamedReply()
{
    QFETCH(QString, wire);
    QFETCH(bool, hasTotal);

    QTemporaryDir home;
    MockProvider mock;
    QVERIFY(mock.listen());
    QFile archive(home.filePath(QStringLiteral("archive.json")));
    QVERIFY(archive.open(QIODevice::WriteOnly));
    archive.write(QStringLiteral(R"({"version":1,"conversations":[],"providers":[{"id":"%1","name":"Mock","wire":"%2",)"
                                 R"("baseURL":"%3","model":"mock-small","cachedModels":[],"apiKey":"sk-mock"}]})")
                      .arg(JsonCoding::uuidText(QUuid::createUuid()), wire, mock.baseURL())
                      .toUtf8());
    archive.close();
    QVERIFY(inspect(home, {QStringLiteral("archive-import"), QStringLiteral("--file"), archive.fileName()}));

    const auto out =
        inspect(home, {QStringLiteral("turn"), QStringLiteral("--text"), QStringLiteral(" Tell me\nmore ")});
    QVERIFY(out);
    Json::Parser parser;
    const Json::Value root = parser.parse(*out);
    QVERIFY2(root.isObject() && root["errorText"].isNull(), out->constData());

    Conversation stored;
    QString error;
    QVERIFY2(fromJson(root["conversation"], stored, error), qPrintable(error));
    QCOMPARE(stored.title, QStringLiteral("Tell me more"));
    QCOMPARE(stored.messages.size(), 2);
    const ChatMessage question = stored.messages.first(), reply = stored.messages.last();
    QCOMPARE(question.role, ChatRole::user);
    QCOMPARE(question.content, QStringLiteral("Tell me\nmore"));
    QCOMPARE(reply.role, ChatRole::assistant);
    QCOMPARE(reply.content, mock.options().reply);
    QVERIFY(reply.usage && reply.usage->promptTokens && reply.usage->completionTokens);
    QCOMPARE(reply.usage->totalTokens.has_value(), hasTotal);

    QList<ChatMessage> shown;
    QVERIFY(fromJson(root["messages"], shown, error));
    QCOMPARE(shown, stored.messages);
}

QTEST_GUILESS_MAIN(tst_InspectTurn)
#include "tst_inspectturn.moc"
