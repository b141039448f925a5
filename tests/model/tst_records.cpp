#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "model/provider.h"

#include <QTest>

#include <limits>

namespace {

const QString idA = QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF");
const QString idB = QStringLiteral("0E984725-C51C-4BF4-9960-E1C80E27ABA0");

QStringList keysOf(const QByteArray &json)
{
    const auto doc = Json::Document::parse(json);
    QStringList keys;
    for (const auto &[key, value] : doc->root().members())
        keys.append(key);
    return keys;
}

QStringList names(std::initializer_list<const char *> list)
{
    QStringList out;
    for (const char *name : list)
        out.append(QString::fromUtf8(name));
    return out;
}

template<typename T>
std::optional<T> decode(const QByteArray &json, QString *error = nullptr)
{
    return decodeJson<T>(json, error);
}

} // namespace

class tst_Records : public QObject
{
    Q_OBJECT

private slots:
    void messageDecoding_data();
    void messageDecoding();
    void messageEncodingWritesOnlyPresentKeys();
    void usageCountsAreExactAtTheLimits();
    void absentIsNotZero();
    void providerDecoding_data();
    void providerDecoding();
    void providerReencodesAllSevenKeys();
    void presetsAreStableForTheRun();
    void conversationDecoding_data();
    void conversationDecoding();
    void conversationRoundTrip();
    void derivedTitle_data();
    void derivedTitle();
    void displayedTokenCount_data();
    void displayedTokenCount();
};

void tst_Records::messageDecoding_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("ok");
    const QByteArray id = idA.toLatin1();
    QTest::newRow("plain") << QByteArray(R"({"id":")" + id + R"(","role":"user","content":"hi"})") << true;
    QTest::newRow("lower-case id") << QByteArray(R"({"id":")" + id.toLower() + R"(","role":"system","content":""})")
                                   << true;
    QTest::newRow("usage null") << QByteArray(R"({"id":")" + id + R"(","role":"user","content":"","usage":null})")
                                << true;
    QTest::newRow("unknown key ignored") << QByteArray(R"({"id":")" + id +
                                                       R"(","role":"assistant","content":"x","extra":[1]})")
                                         << true;
    QTest::newRow("role in other case") << QByteArray(R"({"id":")" + id + R"(","role":"User","content":"x"})") << false;
    QTest::newRow("role with blank") << QByteArray(R"({"id":")" + id + R"(","role":"user ","content":"x"})") << false;
    QTest::newRow("missing content") << QByteArray(R"({"id":")" + id + R"(","role":"user"})") << false;
    QTest::newRow("content not a string") << QByteArray(R"({"id":")" + id + R"(","role":"user","content":5})") << false;
    QTest::newRow("id no uuid") << QByteArray(R"({"id":"abc","role":"user","content":"x"})") << false;
    QTest::newRow("id in braces") << QByteArray(R"({"id":"{)" + id + R"(}","role":"user","content":"x"})") << false;
    QTest::newRow("usage not an object") << QByteArray(R"({"id":")" + id +
                                                       R"(","role":"user","content":"x","usage":3})")
                                         << false;
    QTest::newRow("fractional count") << QByteArray(R"({"id":")" + id +
                                                    R"(","role":"user","content":"x","usage":{"promptTokens":1.5}})")
                                      << false;
    QTest::newRow("count as string") << QByteArray(R"({"id":")" + id +
                                                   R"(","role":"user","content":"x","usage":{"totalTokens":"7"}})")
                                     << false;
    QTest::newRow("count beyond 64 bits")
        << QByteArray(R"({"id":")" + id +
                      R"(","role":"user","content":"x","usage":{"totalTokens":9223372036854775808}})")
        << false;
    QTest::newRow("array, not object") << QByteArray("[]") << false;
}

void tst_Records::messageDecoding()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, ok);
    QString error;
    const auto message = decode<ChatMessage>(json, &error);
    QCOMPARE(message.has_value(), ok);
    QCOMPARE(error.isEmpty(), ok);
}

void tst_Records::messageEncodingWritesOnlyPresentKeys()
{
    ChatMessage message(ChatRole::assistant, QStringLiteral("a/b"));
    QCOMPARE(keysOf(encodeJson(message)), names({"id", "role", "content"}));
    QVERIFY(encodeJson(message).contains(JsonCoding::uuidText(message.id).toLatin1()));

    message.usage = TokenUsage{std::nullopt, 12, std::nullopt};
    QCOMPARE(keysOf(encodeJson(message)), names({"id", "role", "content", "usage"}));
    QCOMPARE(encodeJson(*message.usage), QByteArray(R"({"completionTokens":12})"));
    QCOMPARE(encodeJson(TokenUsage{}), QByteArray("{}"));
    QCOMPARE(decode<TokenUsage>("{}"), TokenUsage{});

    const auto back = decode<ChatMessage>(encodeJson(message));
    QVERIFY(back);
    QCOMPARE(*back, message);
}

void tst_Records::usageCountsAreExactAtTheLimits()
{
    const TokenUsage usage{std::numeric_limits<qint64>::max(), std::numeric_limits<qint64>::min(), 0};
    const QByteArray json = encodeJson(usage);
    QCOMPARE(json, QByteArray(R"({"promptTokens":9223372036854775807,"completionTokens":-9223372036854775808,)"
                              R"("totalTokens":0})"));
    QCOMPARE(decode<TokenUsage>(json), usage);
}

void tst_Records::absentIsNotZero()
{
    QVERIFY(TokenUsage{} != (TokenUsage{0, std::nullopt, std::nullopt}));
    const ChatMessage a(ChatRole::user, QStringLiteral("same"));
    ChatMessage b = a;
    QCOMPARE(a, b);
    b.usage = TokenUsage{};
    QVERIFY(a != b);
    QVERIFY(a != ChatMessage(ChatRole::user, QStringLiteral("same")));
}

void tst_Records::providerDecoding_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("ok");
    const QByteArray head = R"({"id":")" + idA.toLatin1() + R"(","name":"N","baseURL":"u","model":"m",)";
    QTest::newRow("without optional keys") << QByteArray(head + R"("wire":"openAI"})") << true;
    QTest::newRow("optional keys null") << QByteArray(head + R"("wire":"anthropic","cachedModels":null,"apiKey":null})")
                                        << true;
    QTest::newRow("wire in other case") << QByteArray(head + R"("wire":"OpenAI"})") << false;
    QTest::newRow("wire with blank") << QByteArray(head + R"("wire":" openAI"})") << false;
    QTest::newRow("unknown wire") << QByteArray(head + R"("wire":"gemini"})") << false;
    QTest::newRow("models not strings") << QByteArray(head + R"("wire":"openAI","cachedModels":[1]})") << false;
    QTest::newRow("missing model") << QByteArray(R"({"id":")" + idA.toLatin1() +
                                                 R"(","name":"N","baseURL":"u",)"
                                                 R"("wire":"openAI"})")
                                   << false;
}

void tst_Records::providerDecoding()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, ok);
    const auto provider = decode<Provider>(json);
    QCOMPARE(provider.has_value(), ok);
    if (ok) {
        QVERIFY(provider->cachedModels.isEmpty());
        QVERIFY(provider->apiKey.isEmpty());
    }
}

void tst_Records::providerReencodesAllSevenKeys()
{
    const auto provider =
        decode<Provider>(R"({"id":")" + idA.toLatin1() + R"(","name":"N","wire":"openAI","baseURL":"u","model":"m"})");
    QVERIFY(provider);
    const QByteArray json = encodeJson(*provider);
    QCOMPARE(keysOf(json), names({"id", "name", "wire", "baseURL", "model", "cachedModels", "apiKey"}));
    QVERIFY(json.contains(R"("cachedModels":[])"));
    QVERIFY(json.contains(R"("apiKey":"")"));

    Provider reordered = *provider;
    reordered.cachedModels = {QStringLiteral("a"), QStringLiteral("b")};
    Provider other = reordered;
    other.cachedModels = {QStringLiteral("b"), QStringLiteral("a")};
    QVERIFY(reordered != other);
    QCOMPARE(decode<Provider>(encodeJson(reordered)), reordered);
    QCOMPARE(qHash(reordered), qHash(Provider(reordered)));
}

void tst_Records::presetsAreStableForTheRun()
{
    const QList<Provider> &presets = Provider::presets();
    QCOMPARE(presets.size(), 4);
    QStringList presetNames;
    for (const Provider &p : presets) {
        presetNames.append(p.name);
        QVERIFY(p.apiKey.isEmpty());
        QVERIFY(p.cachedModels.isEmpty());
        QVERIFY(!p.baseURL.endsWith(u'/'));
        QVERIFY(p.baseURL.isEmpty() || p.baseURL.startsWith(u"https://"));
    }
    QCOMPARE(presetNames, names({"Groq", "OpenAI", "Anthropic", "Custom (OpenAI-compatible)"}));
    QVERIFY(presets[0].baseURL.endsWith(u"/openai/v1"));
    QCOMPARE(presets[2].wire, ProviderWire::anthropic);
    QCOMPARE(Provider::presets()[1].id, presets[1].id);
}

void tst_Records::conversationDecoding_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("ok");
    const QByteArray id = idA.toLatin1();
    QTest::newRow("provider null") << QByteArray(R"({"id":")" + id +
                                                 R"(","title":"t","providerID":null,)"
                                                 R"("messages":[],"createdAt":0,"updatedAt":1.5})")
                                   << true;
    QTest::newRow("keys in any order") << QByteArray(R"({"updatedAt":2,"messages":[],"createdAt":1,"title":"t",)"
                                                     R"("id":")" +
                                                     id + R"("})")
                                       << true;
    QTest::newRow("ISO date") << QByteArray(R"({"id":")" + id +
                                            R"(","title":"t","messages":[],)"
                                            R"("createdAt":"2024-01-01T00:00:00Z","updatedAt":1})")
                              << false;
    QTest::newRow("missing updatedAt") << QByteArray(R"({"id":")" + id +
                                                     R"(","title":"t","messages":[],)"
                                                     R"("createdAt":1})")
                                       << false;
    QTest::newRow("bad provider id") << QByteArray(R"({"id":")" + id +
                                                   R"(","title":"t","providerID":"x",)"
                                                   R"("messages":[],"createdAt":0,"updatedAt":1})")
                                     << false;
    QTest::newRow("one bad message") << QByteArray(
                                            R"({"id":")" + id + R"(","title":"t","messages":[{"id":")" +
                                            idB.toLatin1() +
                                            R"(","role":"user","content":"ok"},{"role":"user","content":"no id"}],)"
                                            R"("createdAt":0,"updatedAt":1})")
                                     << false;
}

void tst_Records::conversationDecoding()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, ok);
    QString error;
    const auto conversation = decode<Conversation>(json, &error);
    QCOMPARE(conversation.has_value(), ok);
    if (ok)
        QVERIFY(!conversation->providerID);
    else
        QVERIFY(!error.isEmpty());
}

void tst_Records::conversationRoundTrip()
{
    Conversation c{QUuid::createUuid(), QStringLiteral("Trip"), std::nullopt, {}, 725760000.0, 725760000.5};
    QCOMPARE(keysOf(encodeJson(c)), names({"id", "title", "messages", "createdAt", "updatedAt"}));
    QVERIFY(encodeJson(c).endsWith(R"("createdAt":725760000,"updatedAt":725760000.5})"));

    c.providerID = QUuid::createUuid();
    c.messages = {ChatMessage(ChatRole::user, QStringLiteral("q")),
                  ChatMessage(ChatRole::assistant, QStringLiteral("a"), TokenUsage{1, 2, 3})};
    c.updatedAt = ReferenceDate::now();
    QCOMPARE(keysOf(encodeJson(c)), names({"id", "title", "providerID", "messages", "createdAt", "updatedAt"}));
    QCOMPARE(decode<Conversation>(encodeJson(c)), c);

    Conversation later = c;
    later.updatedAt += 1e-6;
    QVERIFY(later != c);

    QCOMPARE(ReferenceDate::toDateTime(725760000.0), QDateTime(QDate(2024, 1, 1), QTime(0, 0), Qt::UTC));
    QCOMPARE(ReferenceDate::fromDateTime(QDateTime(QDate(2024, 1, 1), QTime(0, 0, 0, 500), Qt::UTC)), 725760000.5);
}

void tst_Records::derivedTitle_data()
{
    QTest::addColumn<QList<ChatMessage>>("messages");
    QTest::addColumn<QVariant>("title"); // invalid: no title
    const auto user = [](const QString &text) { return ChatMessage(ChatRole::user, text); };
    const auto assistant = [](const QString &text) { return ChatMessage(ChatRole::assistant, text); };
    const QString sixty = QString(60, u'x');
    // A family emoji of seven code points (four people joined by zero-width joiners).
    const QString family = QStringLiteral("👨‍👩‍👧‍👦");

    QTest::newRow("empty") << QList<ChatMessage>{} << QVariant();
    QTest::newRow("no user message") << QList<ChatMessage>{ChatMessage(ChatRole::system, QStringLiteral("s")),
                                                           assistant(QStringLiteral("a"))}
                                     << QVariant();
    QTest::newRow("first user message blank")
        << QList<ChatMessage>{user(QStringLiteral("  \n ")), user(QStringLiteral("later"))} << QVariant();
    QTest::newRow("trim and join lines") << QList<ChatMessage>{user(QStringLiteral("  Hello\nworld  "))}
                                         << QVariant(QStringLiteral("Hello world"));
    QTest::newRow("tabs and CR kept") << QList<ChatMessage>{user(QStringLiteral("a\tb\r\nc"))}
                                      << QVariant(QStringLiteral("a\tb\r c"));
    QTest::newRow("after an assistant message")
        << QList<ChatMessage>{assistant(QStringLiteral("hi")), user(QStringLiteral("Question"))}
        << QVariant(QStringLiteral("Question"));
    QTest::newRow("sixty characters") << QList<ChatMessage>{user(sixty)} << QVariant(QString(48, u'x'));
    QTest::newRow("exactly 48") << QList<ChatMessage>{user(QString(48, u'y'))} << QVariant(QString(48, u'y'));
    QTest::newRow("emoji is the 48th") << QList<ChatMessage>{user(QString(47, u'z') + family + QStringLiteral("tail"))}
                                       << QVariant(QString(47, u'z') + family);
    QTest::newRow("combining accents count once")
        << QList<ChatMessage>{user(QString(48, u'e').replace(u'e', QStringLiteral("e\u0301")) + u'!')}
        << QVariant(QString(48, u'e').replace(u'e', QStringLiteral("e\u0301")));
}

void tst_Records::derivedTitle()
{
    QFETCH(QList<ChatMessage>, messages);
    QFETCH(QVariant, title);
    const auto derived = Conversation::derivedTitle(messages);
    QCOMPARE(derived.has_value(), title.isValid());
    if (derived)
        QCOMPARE(*derived, title.toString());
}

void tst_Records::displayedTokenCount_data()
{
    QTest::addColumn<std::optional<TokenUsage>>("usage");
    QTest::addColumn<std::optional<qint64>>("count");
    const qint64 max = std::numeric_limits<qint64>::max();
    const qint64 min = std::numeric_limits<qint64>::min();
    QTest::newRow("no usage") << std::optional<TokenUsage>() << std::optional<qint64>();
    QTest::newRow("total wins") << std::optional(TokenUsage{10, 5, 42}) << std::optional<qint64>(42);
    QTest::newRow("total zero shown") << std::optional(TokenUsage{10, 5, 0}) << std::optional<qint64>(0);
    QTest::newRow("sum") << std::optional(TokenUsage{10, 5, std::nullopt}) << std::optional<qint64>(15);
    QTest::newRow("all absent") << std::optional(TokenUsage{}) << std::optional<qint64>();
    QTest::newRow("zero sum") << std::optional(TokenUsage{0, 0, std::nullopt}) << std::optional<qint64>();
    QTest::newRow("overflow saturates") << std::optional(TokenUsage{max, 5, std::nullopt}) << std::optional(max);
    QTest::newRow("negative overflow") << std::optional(TokenUsage{min, -5, std::nullopt}) << std::optional<qint64>();
}

void tst_Records::displayedTokenCount()
{
    QFETCH(std::optional<TokenUsage>, usage);
    QFETCH(std::optional<qint64>, count);
    QCOMPARE(::displayedTokenCount(usage), count);
}

QTEST_GUILESS_MAIN(tst_Records)
#include "tst_records.moc"
