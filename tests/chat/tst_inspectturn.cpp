// verbolt-inspect turn against the mock provider, in a private profile: what a window's turn
// leaves in the real stores.
#include "mockprovider.h"
#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

class tst_InspectTurn final : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void turn_storesUserMessageAndStreamedReply_data();
    void turn_storesUserMessageAndStreamedReply();

private:
    struct Result
    {
        int exitCode = -1;
        QByteArray out;
    };
    // Runs the tool while this process's event loop keeps serving the mock provider.
    Result inspect(const QStringList &args);

    std::unique_ptr<QTemporaryDir> m_home;
};

void tst_InspectTurn::init()
{
    m_home = std::make_unique<QTemporaryDir>();
    QVERIFY(m_home->isValid());
}

tst_InspectTurn::Result tst_InspectTurn::inspect(const QStringList &args)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_home->filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), m_home->filePath(QStringLiteral("data")));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VERBOLT_INSPECT), args);
    process.closeWriteChannel();
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 30000)) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput()};
}

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

    MockProvider mock;
    QVERIFY(mock.listen());
    const QString archive = m_home->filePath(wire + QStringLiteral(".json"));
    QFile file(archive);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QStringLiteral(R"({"version":1,"conversations":[],"providers":[{"id":"%1","name":"Mock","wire":"%2",)"
                              R"("baseURL":"%3","model":"mock-small","cachedModels":[],"apiKey":"sk-mock"}]})")
                   .arg(JsonCoding::uuidText(QUuid::createUuid()), wire, mock.baseURL())
                   .toUtf8());
    file.close();
    QCOMPARE(inspect({QStringLiteral("archive-import"), QStringLiteral("--file"), archive}).exitCode, 0);

    const Result result =
        inspect({QStringLiteral("turn"), QStringLiteral("--text"), QStringLiteral(" Tell me\nmore ")});
    QCOMPARE(result.exitCode, 0);
    Json::Parser parser;
    const Json::Value root = parser.parse(result.out);
    QVERIFY2(root.isObject(), result.out.constData());
    QVERIFY(root["errorText"].isNull());

    Conversation stored;
    QString error;
    QVERIFY2(fromJson(root["conversation"], stored, error), qPrintable(error));
    QCOMPARE(stored.title, QStringLiteral("Tell me more"));
    QCOMPARE(stored.messages.size(), 2);
    QCOMPARE(stored.messages.first().role, ChatRole::user);
    QCOMPARE(stored.messages.first().content, QStringLiteral("Tell me\nmore"));
    const ChatMessage reply = stored.messages.last();
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
