#include "rowfile.h"
#include "transport/chatservice.h"
#include "transportrecorders.h"

#include <QTest>

using namespace Qt::StringLiterals;

using Headers = QList<QPair<QByteArray, QByteArray>>;

using TransportTest::provider;

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
        QTest::newRow("blanks and one slash")
            << openAI << u"  https://api.example.com/v1/ \n"_s << u"https://api.example.com/v1/chat/completions"_s;
        QTest::newRow("two slashes keep one") << openAI << u"https://h/v1//"_s << u"https://h/v1//chat/completions"_s;
        QTest::newRow("anthropic path") << anthropic << u"https://h/v1"_s << u"https://h/v1/messages"_s;
        QTest::newRow("no scheme check") << openAI << u"file:///tmp/x"_s << u"file:///tmp/x/chat/completions"_s;
        QTest::newRow("blanks and line breaks only") << anthropic << u" \t\r\n "_s << QString();
        QTest::newRow("space inside") << openAI << u"https://h/a b"_s << QString();
    }
    void endpoint()
    {
        QFETCH(int, wire);
        QFETCH(QString, baseURL);
        QFETCH(QString, url);
        const auto built = ChatService::makeRequest(provider(ProviderWire(wire), baseURL), {}, u"k"_s);
        if (url.isEmpty()) {
            QVERIFY(std::holds_alternative<ChatServiceError>(built));
            const auto error = std::get<ChatServiceError>(built);
            QCOMPARE(error.kind, ChatServiceError::Kind::invalidBaseURL);
            QCOMPARE(error.errorDescription(), u"The provider Base URL is empty or invalid."_s);
            return;
        }
        QVERIFY(std::holds_alternative<HttpRequest>(built));
        const HttpRequest request = std::get<HttpRequest>(built);
        QCOMPARE(request.url.toString(), url);
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.timeoutMs, 60000);
    }

    void headersInOrder_data()
    {
        QTest::addColumn<int>("wire");
        QTest::addColumn<QString>("key");
        QTest::addColumn<Headers>("headers");
        QTest::newRow("openAI, key unchanged")
            << int(ProviderWire::openAI) << u" sk-1 "_s
            << Headers{{"Content-Type", "application/json"}, {"Authorization", "Bearer  sk-1 "}};
        QTest::newRow("anthropic") << int(ProviderWire::anthropic) << u"ak"_s
                                   << Headers{{"Content-Type", "application/json"},
                                              {"x-api-key", "ak"},
                                              {"anthropic-version", "2023-06-01"}};
    }
    void headersInOrder()
    {
        QFETCH(int, wire);
        QFETCH(QString, key);
        QFETCH(Headers, headers);
        const auto built = ChatService::makeRequest(provider(ProviderWire(wire), u"https://h/v1"_s), {}, key);
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
        const auto built = ChatService::makeRequest(provider(ProviderWire(wire), u"https://h/v1"_s, u"k"_s, QString()),
                                                    messages, u"k"_s);
        QCOMPARE(*std::get<HttpRequest>(built).body, body);
    }
};

QTEST_GUILESS_MAIN(tst_RequestBuilder)
#include "tst_requestbuilder.moc"
