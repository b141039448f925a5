#include "model/conversation.h"
#include "model/json.h"
#include "model/jsoncoding.h"
#include "model/provider.h"
#include "rowfile.h"

#include <QTest>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

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

// The record a case names, in the word after its verb.
std::optional<Record> recordNamed(const QStringList &words)
{
    const QString name = words.value(1);
    return name == u"message"        ? std::optional(Record::message)
           : name == u"provider"     ? std::optional(Record::provider)
           : name == u"conversation" ? std::optional(Record::conversation)
                                     : std::nullopt;
}

} // namespace

Q_DECLARE_METATYPE(Record)

class tst_Records : public QObject
{
    Q_OBJECT

private slots:
    void coding_data()
    {
        QTest::addColumn<Record>("record");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<std::optional<QByteArray>>("written"); // reencode cases only
        const QList<QStringList> cases = readTextRowFile(QStringLiteral(VERBOLT_TEST_DATA "/records.txt"));
        QVERIFY(!cases.isEmpty());
        for (const QStringList &c : cases) {
            const QStringList words = c[0].split(u' ');
            const bool reencode = words[0] == u"reencode";
            const bool known =
                words[0] == u"decode" && c.size() == 3 && (words.value(2) == u"ok" || words.value(2) == u"fails");
            QVERIFY2(recordNamed(words) && (known || (reencode && (c.size() == 3 || c.size() == 4))), qPrintable(c[0]));
            QTest::addRow("%s %s: %s", qPrintable(words[0]), qPrintable(words[1]), qPrintable(c[1]))
                << *recordNamed(words) << c[2].toUtf8() << (reencode || words[2] == u"ok")
                << (reencode ? std::optional(c.value(3, c[2]).toUtf8()) : std::nullopt);
        }
    }
    // The error text is empty exactly when the record decodes; what is written decodes back to an
    // equal record.
    void coding()
    {
        QFETCH(Record, record);
        QFETCH(QByteArray, json);
        QFETCH(bool, ok);
        QFETCH(std::optional<QByteArray>, written);
        withRecord(record, [&](auto type) {
            using T = decltype(type);
            QString error;
            const auto value = decodeJson<T>(json, &error);
            QCOMPARE(value.has_value(), ok);
            QCOMPARE(error.isEmpty(), ok);
            if (written) {
                QCOMPARE(encodeJson(*value), *written);
                QCOMPARE(decodeJson<T>(*written), value);
            }
        });
        // The history's load only checks its messages, and must take exactly those the decoder takes.
        if (record == Record::message) {
            const auto doc = Json::Document::parse(json);
            QVERIFY(doc);
            QString checkError;
            QCOMPARE(checkMessageJson(doc->root(), checkError), ok);
        }
    }

    // The templates the settings window offers, in order: a typo in one would send a user's key
    // to the wrong place.
    void presets()
    {
        QStringList rows;
        for (const Provider &p : Provider::presets()) {
            QVERIFY(p.apiKey.isEmpty() && p.cachedModels.isEmpty());
            rows.append(QStringList{p.name, rawValue(p.wire), p.baseURL, p.model}.join(u' '));
        }
        QCOMPARE(rows, (QStringList{
                           u"Groq openAI https://api.groq.com/openai/v1 llama-3.3-70b-versatile"_s,
                           u"OpenAI openAI https://api.openai.com/v1 gpt-4o-mini"_s,
                           u"Anthropic anthropic https://api.anthropic.com/v1 claude-3-5-sonnet-latest"_s,
                           u"Custom (OpenAI-compatible) openAI  "_s,
                       }));
    }

    void referenceDates()
    {
        QCOMPARE(ReferenceDate::toDateTime(725760000.0), QDateTime(QDate(2024, 1, 1), QTime(0, 0), Qt::UTC));
        QCOMPARE(ReferenceDate::fromDateTime(QDateTime(QDate(2024, 1, 1), QTime(0, 0, 0, 500), Qt::UTC)), 725760000.5);
    }

    void derivedTitle_data()
    {
        QTest::addColumn<QList<ChatMessage>>("messages");
        QTest::addColumn<QVariant>("title"); // invalid: no title
        const auto user = [](const QString &text) { return ChatMessage(ChatRole::user, text); };
        const auto assistant = [](const QString &text) { return ChatMessage(ChatRole::assistant, text); };
        const auto titled = [&](const char *name, const QString &text, const QString &title) {
            QTest::newRow(name) << QList<ChatMessage>{user(text)} << QVariant(title);
        };
        const QString accented = QString(48, u'e').replace(u'e', u"e\u0301"_s);

        QTest::newRow("no user message") << QList<ChatMessage>{ChatMessage(ChatRole::system, u"s"_s), assistant(u"a"_s)}
                                         << QVariant();
        QTest::newRow("first user message blank")
            << QList<ChatMessage>{user(u"  \n "_s), user(u"later"_s)} << QVariant();
        QTest::newRow("after an assistant message")
            << QList<ChatMessage>{assistant(u"hi"_s), user(u"Question"_s)} << QVariant(u"Question"_s);
        titled("trim and join lines", u"  Hello\nworld  "_s, u"Hello world"_s);
        titled("tabs and CR kept", u"a\tb\r\nc"_s, u"a\tb\r c"_s);
        titled("sixty characters", QString(60, u'x'), QString(48, u'x'));
        titled("exactly 48", QString(48, u'y'), QString(48, u'y'));
        titled("combining accents count once", accented + u'!', accented);
        const QString longCluster = u'e' + QString(2000, QChar(0x0301));
        titled("a cluster longer than the first look", longCluster + QString(60, u'x'),
               longCluster + QString(47, u'x'));
        titled("a megabyte after blank lines", QString(3000, u'\n') + QString(1'000'000, u'w'), QString(48, u'w'));
    }
    void derivedTitle()
    {
        QFETCH(QList<ChatMessage>, messages);
        QFETCH(QVariant, title);
        const auto derived = Conversation::derivedTitle(messages);
        QCOMPARE(derived.has_value(), title.isValid());
        if (derived)
            QCOMPARE(*derived, title.toString());
    }

    void displayedTokenCount_data()
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
    void displayedTokenCount()
    {
        QFETCH(std::optional<TokenUsage>, usage);
        QFETCH(std::optional<qint64>, count);
        QCOMPARE(::displayedTokenCount(usage), count);
    }
};

QTEST_GUILESS_MAIN(tst_Records)
#include "tst_records.moc"
