#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "model/provider.h"

#include <QTest>

#include <limits>

namespace {

const QByteArray idA = "6F9619FF-8B86-D011-B42D-00C04FC964FF";
const QByteArray idB = "0E984725-C51C-4BF4-9960-E1C80E27ABA0";

enum class Record { message, provider, conversation };

// Calls f with a value of the record's type, to name that type.
template<typename F>
auto withRecord(Record record, F f)
{
    switch (record) {
    case Record::message:
        return f(ChatMessage());
    case Record::provider:
        return f(Provider());
    case Record::conversation:
        break;
    }
    return f(Conversation());
}

} // namespace

Q_DECLARE_METATYPE(Record)

class tst_Records : public QObject
{
    Q_OBJECT

private slots:
    void decoding_data();
    void decoding();
    void reencoding_data();
    void reencoding();
    void presets();
    void referenceDates();
    void derivedTitle_data();
    void derivedTitle();
    void displayedTokenCount_data();
    void displayedTokenCount();
};

void tst_Records::decoding_data()
{
    QTest::addColumn<Record>("record");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("ok");
    const auto add = [](const char *name, Record record, const QByteArray &json, bool ok) {
        QTest::newRow(name) << record << json << ok;
    };
    const QByteArray message = R"({"id":")" + idA + R"(","role":)";
    const auto addMessage = [&](const char *name, const QByteArray &rest, bool ok) {
        add(name, Record::message, message + rest, ok);
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
    add("message: id no uuid", Record::message, R"({"id":"abc","role":"user","content":"x"})", false);
    add("message: id in braces", Record::message, R"({"id":"{)" + idA + R"(}","role":"user","content":"x"})", false);
    add("message: array", Record::message, "[]", false);

    const QByteArray provider = R"({"id":")" + idA + R"(","name":"N","baseURL":"u","model":"m",)";
    add("provider: optional keys null", Record::provider,
        provider + R"("wire":"anthropic","cachedModels":null,"apiKey":null})", true);
    for (const char *wire : {"OpenAI", " openAI", "gemini"})
        QTest::addRow("provider: wire \"%s\"", wire)
            << Record::provider << QByteArray(provider + R"("wire":")" + wire + "\"}") << false;
    add("provider: models not strings", Record::provider, provider + R"("wire":"openAI","cachedModels":[1]})", false);
    add("provider: missing model", Record::provider,
        R"({"id":")" + idA + R"(","name":"N","baseURL":"u","wire":"openAI"})", false);

    const QByteArray conversation = R"({"id":")" + idA + R"(","title":"t",)";
    add("conversation: keys in any order", Record::conversation,
        R"({"updatedAt":2,"messages":[],"createdAt":1,"title":"t","id":")" + idA + R"("})", true);
    add("conversation: ISO date", Record::conversation,
        conversation + R"("messages":[],"createdAt":"2024-01-01T00:00:00Z","updatedAt":1})", false);
    add("conversation: missing updatedAt", Record::conversation, conversation + R"("messages":[],"createdAt":1})",
        false);
    add("conversation: bad provider id", Record::conversation,
        conversation + R"("providerID":"x","messages":[],"createdAt":0,"updatedAt":1})", false);
    add("conversation: one bad message", Record::conversation,
        conversation + R"("messages":[{"id":")" + idB +
            R"(","role":"user","content":"ok"},{"role":"user","content":"no id"}],"createdAt":0,"updatedAt":1})",
        false);
}

// The error text is empty exactly when the record decodes.
void tst_Records::decoding()
{
    QFETCH(Record, record);
    QFETCH(QByteArray, json);
    QFETCH(bool, ok);
    QString error;
    QCOMPARE(withRecord(record, [&](auto type) { return decodeJson<decltype(type)>(json, &error).has_value(); }), ok);
    QCOMPARE(error.isEmpty(), ok);
}

// Absent optional keys stay absent, except the provider's, which are always written; numbers
// keep their shortest form and counts their full 64 bits; what is written decodes back to an
// equal record.
void tst_Records::reencoding_data()
{
    QTest::addColumn<Record>("record");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("expected"); // empty: the input itself
    const auto add = [](const char *name, Record record, const QByteArray &json, const QByteArray &expected = {}) {
        QTest::newRow(name) << record << json << expected;
    };
    add("message without usage", Record::message,
        R"({"usage":null,"content":"a/b","role":"assistant","id":")" + idA + R"("})",
        R"({"id":")" + idA + R"(","role":"assistant","content":"a\/b"})");
    add("message with some counts", Record::message,
        R"({"id":")" + idA + R"(","role":"user","content":"","usage":{"completionTokens":12}})");
    add("message with counts at the limits", Record::message,
        R"({"id":")" + idA +
            R"(","role":"user","content":"","usage":{"promptTokens":9223372036854775807,)"
            R"("completionTokens":-9223372036854775808,"totalTokens":0}})");
    add("message with empty usage", Record::message,
        R"({"id":")" + idA + R"(","role":"system","content":"","usage":{}})");
    const QByteArray provider = R"({"id":")" + idA + R"(","name":"N","wire":"openAI","baseURL":"u","model":"m")";
    add("provider gains its optional keys", Record::provider, provider + "}",
        provider + R"(,"cachedModels":[],"apiKey":""})");
    add("provider keeps the models' order", Record::provider,
        R"({"id":")" + idA +
            R"(","name":"N","wire":"anthropic","baseURL":"u","model":"m","cachedModels":["b","a"],"apiKey":"k"})");
    add("conversation without provider", Record::conversation,
        R"({"id":")" + idA +
            R"(","title":"Trip","providerID":null,"messages":[],"createdAt":725760000.0,"updatedAt":725760000.5})",
        R"({"id":")" + idA + R"(","title":"Trip","messages":[],"createdAt":725760000,"updatedAt":725760000.5})");
    add("conversation with everything", Record::conversation,
        R"({"id":")" + idA + R"(","title":"T","providerID":")" + idB + R"(","messages":[{"id":")" + idB +
            R"(","role":"assistant","content":"a","usage":{"promptTokens":1,"completionTokens":2,"totalTokens":3}}],)"
            R"("createdAt":0.1,"updatedAt":1e+300})");
}

void tst_Records::reencoding()
{
    QFETCH(Record, record);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, expected);
    withRecord(record, [&](auto type) {
        using T = decltype(type);
        const auto value = decodeJson<T>(json);
        QVERIFY(value);
        const QByteArray out = encodeJson(*value);
        QCOMPARE(out, expected.isEmpty() ? json : expected);
        QCOMPARE(decodeJson<T>(out), value);
    });
}

void tst_Records::presets()
{
    const QList<Provider> &presets = Provider::presets();
    QStringList names;
    for (const Provider &p : presets) {
        names.append(p.name);
        QVERIFY(p.apiKey.isEmpty() && p.cachedModels.isEmpty() && !p.baseURL.endsWith(u'/'));
    }
    QCOMPARE(names.join(u'|'), QStringLiteral("Groq|OpenAI|Anthropic|Custom (OpenAI-compatible)"));
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
    const auto titled = [&](const char *name, const QString &text, const QString &title) {
        QTest::newRow(name) << QList<ChatMessage>{user(text)} << QVariant(title);
    };
    // A family emoji of seven code points (four people joined by zero-width joiners).
    const QString family = QStringLiteral("👨‍👩‍👧‍👦");
    const QString accented = QString(48, u'e').replace(u'e', QStringLiteral("e\u0301"));

    QTest::newRow("empty") << QList<ChatMessage>{} << QVariant();
    QTest::newRow("no user message") << QList<ChatMessage>{ChatMessage(ChatRole::system, QStringLiteral("s")),
                                                           assistant(QStringLiteral("a"))}
                                     << QVariant();
    QTest::newRow("first user message blank")
        << QList<ChatMessage>{user(QStringLiteral("  \n ")), user(QStringLiteral("later"))} << QVariant();
    QTest::newRow("after an assistant message")
        << QList<ChatMessage>{assistant(QStringLiteral("hi")), user(QStringLiteral("Question"))}
        << QVariant(QStringLiteral("Question"));
    titled("trim and join lines", QStringLiteral("  Hello\nworld  "), QStringLiteral("Hello world"));
    titled("tabs and CR kept", QStringLiteral("a\tb\r\nc"), QStringLiteral("a\tb\r c"));
    titled("sixty characters", QString(60, u'x'), QString(48, u'x'));
    titled("exactly 48", QString(48, u'y'), QString(48, u'y'));
    titled("emoji is the 48th", QString(47, u'z') + family + QStringLiteral("tail"), QString(47, u'z') + family);
    titled("combining accents count once", accented + u'!', accented);
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
    const std::optional<qint64> none;
    QTest::newRow("no usage") << std::optional<TokenUsage>() << none;
    QTest::newRow("total wins") << std::optional(TokenUsage{10, 5, 42}) << std::optional<qint64>(42);
    QTest::newRow("total zero shown") << std::optional(TokenUsage{10, 5, 0}) << std::optional<qint64>(0);
    QTest::newRow("sum") << std::optional(TokenUsage{10, 5, std::nullopt}) << std::optional<qint64>(15);
    QTest::newRow("all absent") << std::optional(TokenUsage{}) << none;
    QTest::newRow("zero sum") << std::optional(TokenUsage{0, 0, std::nullopt}) << none;
    QTest::newRow("overflow saturates") << std::optional(TokenUsage{max, 5, std::nullopt}) << std::optional(max);
    QTest::newRow("negative overflow") << std::optional(TokenUsage{min, -5, std::nullopt}) << none;
}

void tst_Records::displayedTokenCount()
{
    QFETCH(std::optional<TokenUsage>, usage);
    QFETCH(std::optional<qint64>, count);
    QCOMPARE(::displayedTokenCount(usage), count);
}

QTEST_GUILESS_MAIN(tst_Records)
#include "tst_records.moc"
