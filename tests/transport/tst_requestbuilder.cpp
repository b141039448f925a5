#include "rowfile.h"
#include "transport/chatservice.h"

#include <QTest>

using Headers = QList<QPair<QByteArray, QByteArray>>;

namespace {

Provider provider(ProviderWire wire, const QString &baseURL, const QString &model = QStringLiteral("m"))
{
    return Provider{QUuid::createUuid(), QStringLiteral("P"), wire, baseURL, model, {}, QStringLiteral("sk-key")};
}

} // namespace

class tst_RequestBuilder : public QObject
{
    Q_OBJECT

private slots:
    void endpoint_data()
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

    void endpoint()
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

    void headersInOrder_data()
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

    void headersInOrder()
    {
        QFETCH(int, wire);
        QFETCH(QString, key);
        QFETCH(Headers, headers);
        const auto built =
            ChatService::makeRequest(provider(ProviderWire(wire), QStringLiteral("https://h/v1")), {}, key);
        const HttpRequest request = std::get<HttpRequest>(built);
        QCOMPARE(request.headers, headers);
        const QNetworkRequest network = request.toNetworkRequest();
        for (const auto &[name, value] : headers)
            QCOMPARE(network.rawHeader(name), value);
    }

    void body_data()
    {
        QTest::addColumn<int>("wire");
        QTest::addColumn<QList<ChatMessage>>("messages");
        QTest::addColumn<QByteArray>("body");
        const QList<QStringList> rows = readTextRowFile(QStringLiteral(VERBOLT_TEST_DATA "/requests.rows"));
        QVERIFY(!rows.isEmpty());
        for (const QStringList &row : rows) {
            QList<ChatMessage> messages;
            for (const QString &message : row.mid(3)) {
                const auto role = chatRoleFromRaw(message.section(u':', 0, 0));
                QVERIFY2(role, qPrintable(message));
                messages.append(ChatMessage(*role, message.section(u':', 1)));
            }
            QVERIFY2(row.size() >= 3 && (row[1] == u"openAI" || row[1] == u"anthropic"), qPrintable(row.first()));
            QTest::newRow(qPrintable(row.first()))
                << int(row[1] == u"openAI" ? ProviderWire::openAI : ProviderWire::anthropic) << messages
                << row[2].toUtf8();
        }
    }

    void body()
    {
        QFETCH(int, wire);
        QFETCH(QList<ChatMessage>, messages);
        QFETCH(QByteArray, body);
        const auto built = ChatService::makeRequest(
            provider(ProviderWire(wire), QStringLiteral("https://h/v1"), QString()), messages, QStringLiteral("k"));
        QCOMPARE(*std::get<HttpRequest>(built).body, body);
    }
};

QTEST_GUILESS_MAIN(tst_RequestBuilder)
#include "tst_requestbuilder.moc"
