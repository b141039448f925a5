#include "model/json.h"
#include "transport/chatservice.h"

#include <QTest>

using Headers = QList<QPair<QByteArray, QByteArray>>;

namespace {

Provider provider(ProviderWire wire, const QString &baseURL, const QString &model = QStringLiteral("m"))
{
    return Provider{QUuid::createUuid(), QStringLiteral("P"), wire, baseURL, model, {}, QStringLiteral("sk-key")};
}

ChatMessage msg(ChatRole role, const QString &content)
{
    return ChatMessage(role, content);
}

// role/content pairs of the body's "messages", in order.
QList<QPair<QString, QString>> sentMessages(const Json::Value &body)
{
    QList<QPair<QString, QString>> out;
    for (const Json::Value &m : body["messages"].elements()) {
        out.append({m["role"].toString(), m["content"].toString()});
        if (m.size() != 2)
            out.append({QStringLiteral("<extra keys>"), QString()});
    }
    return out;
}

} // namespace

class tst_RequestBuilder : public QObject
{
    Q_OBJECT

private slots:
    void endpoint_data();
    void endpoint();
    void headersInOrder_data();
    void headersInOrder();
    void openAIBody();
    void anthropicSystemText_data();
    void anthropicSystemText();
};

void tst_RequestBuilder::endpoint_data()
{
    QTest::addColumn<int>("wire");
    QTest::addColumn<QString>("baseURL");
    QTest::addColumn<QString>("url"); // empty: invalidBaseURL
    const int openAI = int(ProviderWire::openAI);
    const int anthropic = int(ProviderWire::anthropic);
    QTest::newRow("blanks and one slash") << openAI << QStringLiteral("  https://api.example.com/v1/ \n")
                                          << QStringLiteral("https://api.example.com/v1/chat/completions");
    QTest::newRow("two slashes keep one")
        << openAI << QStringLiteral("https://h/v1//") << QStringLiteral("https://h/v1//chat/completions");
    QTest::newRow("anthropic path") << anthropic << QStringLiteral("https://h/v1")
                                    << QStringLiteral("https://h/v1/messages");
    QTest::newRow("port and query-free") << openAI << QStringLiteral("http://127.0.0.1:11434/v1")
                                         << QStringLiteral("http://127.0.0.1:11434/v1/chat/completions");
    QTest::newRow("no scheme check") << openAI << QStringLiteral("file:///tmp/x")
                                     << QStringLiteral("file:///tmp/x/chat/completions");
    QTest::newRow("empty") << openAI << QString() << QString();
    QTest::newRow("blanks and line breaks only") << anthropic << QStringLiteral(" \t\r\n ") << QString();
    QTest::newRow("space inside") << openAI << QStringLiteral("https://h/a b") << QString();
    QTest::newRow("bad port") << openAI << QStringLiteral("http://h:99999999/v1") << QString();
}

void tst_RequestBuilder::endpoint()
{
    QFETCH(int, wire);
    QFETCH(QString, baseURL);
    QFETCH(QString, url);
    const auto built = ChatService::makeRequest(provider(ProviderWire(wire), baseURL), {}, QStringLiteral("k"));
    if (url.isEmpty()) {
        QVERIFY(std::holds_alternative<ChatServiceError>(built));
        const auto error = std::get<ChatServiceError>(built);
        QCOMPARE(error.kind, ChatServiceError::Kind::invalidBaseURL);
        QCOMPARE(error.errorDescription(), QStringLiteral("The provider Base URL is empty or invalid."));
        return;
    }
    QVERIFY(std::holds_alternative<HttpRequest>(built));
    const HttpRequest request = std::get<HttpRequest>(built);
    QCOMPARE(request.url.toString(), url);
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.timeoutMs, 60000);
    QCOMPARE(request.toNetworkRequest().transferTimeout(), 60000);
}

void tst_RequestBuilder::headersInOrder_data()
{
    QTest::addColumn<int>("wire");
    QTest::addColumn<QString>("key");
    QTest::addColumn<Headers>("headers");
    QTest::newRow("openAI, key unchanged")
        << int(ProviderWire::openAI) << QStringLiteral(" sk-1 ")
        << Headers{{"Content-Type", "application/json"}, {"Authorization", "Bearer  sk-1 "}};
    QTest::newRow("anthropic") << int(ProviderWire::anthropic) << QStringLiteral("ak")
                               << Headers{{"Content-Type", "application/json"},
                                          {"x-api-key", "ak"},
                                          {"anthropic-version", "2023-06-01"}};
}

void tst_RequestBuilder::headersInOrder()
{
    QFETCH(int, wire);
    QFETCH(QString, key);
    QFETCH(Headers, headers);
    const auto built = ChatService::makeRequest(provider(ProviderWire(wire), QStringLiteral("https://h/v1")), {}, key);
    const HttpRequest request = std::get<HttpRequest>(built);
    QCOMPARE(request.headers, headers);
    const QNetworkRequest network = request.toNetworkRequest();
    for (const auto &[name, value] : headers)
        QCOMPARE(network.rawHeader(name), value);
}

void tst_RequestBuilder::openAIBody()
{
    const QList<ChatMessage> messages{
        msg(ChatRole::system, QStringLiteral("be brief")), msg(ChatRole::user, QStringLiteral("q1 \"quoted\" / ü 👍")),
        msg(ChatRole::assistant, QString()), msg(ChatRole::system, QStringLiteral("late system"))};
    const auto built = ChatService::makeRequest(
        provider(ProviderWire::openAI, QStringLiteral("https://h/v1"), QString()), messages, QStringLiteral("k"));
    const QByteArray body = *std::get<HttpRequest>(built).body;
    QVERIFY(!body.contains('\n'));
    const auto doc = Json::Document::parse(body);
    QVERIFY(doc);
    const Json::Value root = doc->root();
    QCOMPARE(root.size(), 4);
    QCOMPARE(root["model"].toString(), QString());
    QVERIFY(root["model"].isString());
    QVERIFY(root["stream"].isBool() && root["stream"].toBool());
    QCOMPARE(root["stream_options"].size(), 1);
    QVERIFY(root["stream_options"]["include_usage"].toBool());
    QCOMPARE(sentMessages(root), (QList<QPair<QString, QString>>{
                                     {QStringLiteral("system"), QStringLiteral("be brief")},
                                     {QStringLiteral("user"), QStringLiteral("q1 \"quoted\" / ü 👍")},
                                     {QStringLiteral("assistant"), QString()},
                                     {QStringLiteral("system"), QStringLiteral("late system")},
                                 }));
}

void tst_RequestBuilder::anthropicSystemText_data()
{
    QTest::addColumn<QList<ChatMessage>>("messages");
    QTest::addColumn<QVariant>("system"); // invalid: no "system" member
    QTest::addColumn<int>("turns");
    const auto sys = [](const char *text) { return msg(ChatRole::system, QString::fromUtf8(text)); };
    const auto user = msg(ChatRole::user, QStringLiteral("u"));
    QTest::newRow("A, user, B") << QList<ChatMessage>{sys("A"), user, sys("B")} << QVariant(QStringLiteral("A\n\nB"))
                                << 1;
    QTest::newRow("no system") << QList<ChatMessage>{user, msg(ChatRole::assistant, QStringLiteral("a")), user}
                               << QVariant() << 3;
    QTest::newRow("one empty system") << QList<ChatMessage>{sys(""), user} << QVariant() << 1;
    QTest::newRow("two empty systems") << QList<ChatMessage>{sys(""), user, sys("")} << QVariant(QStringLiteral("\n\n"))
                                       << 1;
}

void tst_RequestBuilder::anthropicSystemText()
{
    QFETCH(QList<ChatMessage>, messages);
    QFETCH(QVariant, system);
    QFETCH(int, turns);
    const auto built = ChatService::makeRequest(provider(ProviderWire::anthropic, QStringLiteral("https://h/v1")),
                                                messages, QStringLiteral("k"));
    const auto doc = Json::Document::parse(*std::get<HttpRequest>(built).body);
    QVERIFY(doc);
    const Json::Value root = doc->root();
    QCOMPARE(root["max_tokens"].toInt64(), qint64(4096));
    QVERIFY(root["stream"].toBool());
    QVERIFY(!root.contains("stream_options"));
    QCOMPARE(root.contains("system"), system.isValid());
    if (system.isValid())
        QCOMPARE(root["system"].toString(), system.toString());
    const auto sent = sentMessages(root);
    QCOMPARE(sent.size(), turns);
    for (const auto &[role, content] : sent)
        QVERIFY(role != u"system");
}

QTEST_GUILESS_MAIN(tst_RequestBuilder)
#include "tst_requestbuilder.moc"
