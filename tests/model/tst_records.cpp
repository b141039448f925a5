#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "model/provider.h"

#include <QTest>

#include <limits>

namespace {

const QString idA = QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF");
const QString idB = QStringLiteral("0E984725-C51C-4BF4-9960-E1C80E27ABA0");

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
    void decoding_data();
    void decoding();
    void reencoding_data();
    void reencoding();
    void usageCountsAreExactAtTheLimits();
    void presets();
    void referenceDates();
    void derivedTitle_data();
    void derivedTitle();
    void displayedTokenCount_data();
    void displayedTokenCount();
};

enum class Record { message, provider, conversation };
Q_DECLARE_METATYPE(Record)

namespace {

// Decodes json as the record; the error text is empty exactly when it decodes.
bool decodes(Record record, const QByteArray &json, QString *error)
{
    switch (record) {
    case Record::message:
        return decode<ChatMessage>(json, error).has_value();
    case Record::provider:
        return decode<Provider>(json, error).has_value();
    case Record::conversation:
        break;
    }
    return decode<Conversation>(json, error).has_value();
}

// The record decoded and encoded again, and whether that decodes back to an equal record.
QByteArray reencoded(Record record, const QByteArray &json, bool *stable)
{
    const auto again = [stable](const auto &value) {
        const QByteArray out = encodeJson(*value);
        *stable = decode<std::decay_t<decltype(*value)>>(out) == value;
        return out;
    };
    switch (record) {
    case Record::message:
        return again(decode<ChatMessage>(json));
    case Record::provider:
        return again(decode<Provider>(json));
    case Record::conversation:
        break;
    }
    return again(decode<Conversation>(json));
}

} // namespace

void tst_Records::decoding_data()
{
    QTest::addColumn<Record>("record");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("ok");
    const QByteArray id = idA.toLatin1();
    const QByteArray message = R"({"id":")" + id + R"(","role":)";
    const auto addMessage = [&](const char *name, const QByteArray &rest, bool ok) {
        QTest::newRow(name) << Record::message << QByteArray(message + rest) << ok;
    };
    addMessage("message: lower-case id", R"("system","content":""})", true);
    addMessage("message: usage null, unknown key", R"("user","content":"","usage":null,"extra":[1]})", true);
    addMessage("message: role in other case", R"("User","content":"x"})", false);
    addMessage("message: role with blank", R"("user ","content":"x"})", false);
    addMessage("message: missing content", R"("user"})", false);
    addMessage("message: content not a string", R"("user","content":5})", false);
    addMessage("message: usage not an object", R"("user","content":"x","usage":3})", false);
    addMessage("message: fractional count", R"("user","content":"x","usage":{"promptTokens":1.5}})", false);
    addMessage("message: count as string", R"("user","content":"x","usage":{"totalTokens":"7"}})", false);
    addMessage("message: count beyond 64 bits", R"("user","content":"x","usage":{"totalTokens":9223372036854775808}})",
               false);
    QTest::newRow("message: id no uuid") << Record::message << QByteArray(R"({"id":"abc","role":"user","content":"x"})")
                                         << false;
    QTest::newRow("message: id in braces")
        << Record::message << QByteArray(R"({"id":"{)" + id + R"(}","role":"user","content":"x"})") << false;
    QTest::newRow("message: array") << Record::message << QByteArray("[]") << false;

    const QByteArray provider = R"({"id":")" + id + R"(","name":"N","baseURL":"u","model":"m",)";
    QTest::newRow("provider: optional keys null")
        << Record::provider << QByteArray(provider + R"("wire":"anthropic","cachedModels":null,"apiKey":null})")
        << true;
    for (const char *wire : {"OpenAI", " openAI", "gemini"})
        QTest::addRow("provider: wire \"%s\"", wire)
            << Record::provider << QByteArray(provider + R"("wire":")" + wire + "\"}") << false;
    QTest::newRow("provider: models not strings")
        << Record::provider << QByteArray(provider + R"("wire":"openAI","cachedModels":[1]})") << false;
    QTest::newRow("provider: missing model")
        << Record::provider << QByteArray(R"({"id":")" + id + R"(","name":"N","baseURL":"u","wire":"openAI"})")
        << false;

    const QByteArray conversation = R"({"id":")" + id + R"(","title":"t",)";
    QTest::newRow("conversation: keys in any order")
        << Record::conversation
        << QByteArray(R"({"updatedAt":2,"messages":[],"createdAt":1,"title":"t","id":")" + id + R"("})") << true;
    QTest::newRow("conversation: ISO date")
        << Record::conversation
        << QByteArray(conversation + R"("messages":[],"createdAt":"2024-01-01T00:00:00Z","updatedAt":1})") << false;
    QTest::newRow("conversation: missing updatedAt")
        << Record::conversation << QByteArray(conversation + R"("messages":[],"createdAt":1})") << false;
    QTest::newRow("conversation: bad provider id")
        << Record::conversation
        << QByteArray(conversation + R"("providerID":"x","messages":[],"createdAt":0,"updatedAt":1})") << false;
    QTest::newRow("conversation: one bad message")
        << Record::conversation
        << QByteArray(
               conversation + R"("messages":[{"id":")" + idB.toLatin1() +
               R"(","role":"user","content":"ok"},{"role":"user","content":"no id"}],"createdAt":0,"updatedAt":1})")
        << false;
}

void tst_Records::decoding()
{
    QFETCH(Record, record);
    QFETCH(QByteArray, json);
    QFETCH(bool, ok);
    QString error;
    QCOMPARE(decodes(record, json, &error), ok);
    QCOMPARE(error.isEmpty(), ok);
}

// Absent optional keys stay absent, except the provider's, which are always written; numbers
// keep their shortest form; what is written decodes back to an equal record.
void tst_Records::reencoding_data()
{
    QTest::addColumn<Record>("record");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray id = idA.toLatin1();
    QTest::newRow("message without usage")
        << Record::message << QByteArray(R"({"usage":null,"content":"a/b","role":"assistant","id":")" + id + R"("})")
        << QByteArray(R"({"id":")" + id + R"(","role":"assistant","content":"a\/b"})");
    QTest::newRow("message with some counts")
        << Record::message
        << QByteArray(R"({"id":")" + id + R"(","role":"user","content":"","usage":{"completionTokens":12}})")
        << QByteArray(R"({"id":")" + id + R"(","role":"user","content":"","usage":{"completionTokens":12}})");
    QTest::newRow("provider gains its optional keys")
        << Record::provider
        << QByteArray(R"({"id":")" + id + R"(","name":"N","wire":"openAI","baseURL":"u","model":"m"})")
        << QByteArray(R"({"id":")" + id +
                      R"(","name":"N","wire":"openAI","baseURL":"u","model":"m","cachedModels":[],"apiKey":""})");
    QTest::newRow("provider keeps the models' order")
        << Record::provider
        << QByteArray(
               R"({"id":")" + id +
               R"(","name":"N","wire":"anthropic","baseURL":"u","model":"m","cachedModels":["b","a"],"apiKey":"k"})")
        << QByteArray(
               R"({"id":")" + id +
               R"(","name":"N","wire":"anthropic","baseURL":"u","model":"m","cachedModels":["b","a"],"apiKey":"k"})");
    QTest::newRow("conversation without provider")
        << Record::conversation
        << QByteArray(
               R"({"id":")" + id +
               R"(","title":"Trip","providerID":null,"messages":[],"createdAt":725760000.0,"updatedAt":725760000.5})")
        << QByteArray(R"({"id":")" + id +
                      R"(","title":"Trip","messages":[],"createdAt":725760000,"updatedAt":725760000.5})");
    const QByteArray full =
        R"({"id":")" + id + R"(","title":"T","providerID":")" + idB.toLatin1() + R"(","messages":[{"id":")" +
        idB.toLatin1() +
        R"(","role":"assistant","content":"a","usage":{"promptTokens":1,"completionTokens":2,"totalTokens":3}}],"createdAt":0.1,"updatedAt":1e+300})";
    QTest::newRow("conversation with everything") << Record::conversation << full << full;
}

void tst_Records::reencoding()
{
    QFETCH(Record, record);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, expected);
    bool stable = false;
    QCOMPARE(reencoded(record, json, &stable), expected);
    QVERIFY(stable);
}

void tst_Records::usageCountsAreExactAtTheLimits()
{
    const TokenUsage usage{std::numeric_limits<qint64>::max(), std::numeric_limits<qint64>::min(), 0};
    const QByteArray json = encodeJson(usage);
    QCOMPARE(json, QByteArray(R"({"promptTokens":9223372036854775807,"completionTokens":-9223372036854775808,)"
                              R"("totalTokens":0})"));
    QCOMPARE(decode<TokenUsage>(json), usage);
    QCOMPARE(encodeJson(TokenUsage{}), QByteArray("{}"));
}

void tst_Records::presets()
{
    const QList<Provider> &presets = Provider::presets();
    QStringList presetNames;
    for (const Provider &p : presets) {
        presetNames.append(p.name);
        QVERIFY(p.apiKey.isEmpty() && p.cachedModels.isEmpty() && !p.baseURL.endsWith(u'/'));
    }
    QCOMPARE(presetNames, names({"Groq", "OpenAI", "Anthropic", "Custom (OpenAI-compatible)"}));
    QCOMPARE(presets[0].baseURL, QStringLiteral("https://api.groq.com/openai/v1"));
    QCOMPARE(presets[2].wire, ProviderWire::anthropic);
    QCOMPARE(Provider::presets()[1].id, presets[1].id); // the same ids for the whole run
}

void tst_Records::referenceDates()
{
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
