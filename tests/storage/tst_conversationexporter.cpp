#include "storage/conversationexporter.h"
#include "storagetestsupport.h"

#include <QTest>
#include <QTimeZone>

#include <ctime>
#include <limits>

using namespace StorageTest;

namespace {

// 2024-05-01 04:00 UTC, which is 09:30 in Kolkata, the zone the tests run in.
double mayFirstAtHalfPastNineInKolkata()
{
    return ReferenceDate::fromDateTime(QDateTime(QDate(2024, 5, 1), QTime(4, 0), QTimeZone::utc()));
}

Conversation trip()
{
    Conversation c;
    c.id = QUuid::createUuid();
    c.title = QStringLiteral("Trip");
    c.createdAt = mayFirstAtHalfPastNineInKolkata() - 3 * 86400;
    c.updatedAt = mayFirstAtHalfPastNineInKolkata();
    c.messages = {ChatMessage(ChatRole::user, QStringLiteral("the question")),
                  ChatMessage(ChatRole::assistant, QStringLiteral("the answer"), TokenUsage{{}, {}, 42})};
    return c;
}

using Count = std::optional<qint64>;

} // namespace

class tst_ConversationExporter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void markdown_wholeDocument();
    void markdown_noMessages();
    void informationLine_data();
    void informationLine();
    void assistantHeading_data();
    void assistantHeading();
    void contentIsWrittenUnchanged();
    void sanitizedFileName_data();
    void sanitizedFileName();
    void export_writesTheDocumentOwnerOnly();
    void export_failureKeepsOldFile();

private:
    std::unique_ptr<Profile> m_profile;
};

void tst_ConversationExporter::initTestCase()
{
    qputenv("TZ", "Asia/Kolkata");
    tzset();
    m_profile = std::make_unique<Profile>();
    QVERIFY(m_profile->isValid());
}

void tst_ConversationExporter::markdown_wholeDocument()
{
    const QString expected = QStringLiteral("# Trip\n"
                                            "\n"
                                            "_2024-05-01 09:30 \u00B7 OpenAI \u00B7 gpt-4o-mini_\n"
                                            "\n"
                                            "## You\n"
                                            "\n"
                                            "the question\n"
                                            "\n"
                                            "## Assistant _(42 tokens)_\n"
                                            "\n"
                                            "the answer\n"
                                            "\n");
    QCOMPARE(ConversationExporter::markdown(trip(), QStringLiteral("OpenAI"), QStringLiteral("gpt-4o-mini")), expected);
}

void tst_ConversationExporter::markdown_noMessages()
{
    Conversation c = trip();
    c.messages.clear();
    c.title = QStringLiteral("Empty");
    QCOMPARE(ConversationExporter::markdown(c, std::nullopt, std::nullopt),
             QStringLiteral("# Empty\n\n_2024-05-01 09:30_\n\n"));
}

void tst_ConversationExporter::informationLine_data()
{
    QTest::addColumn<std::optional<QString>>("providerName");
    QTest::addColumn<std::optional<QString>>("model");
    QTest::addColumn<QString>("line");

    using Text = std::optional<QString>;
    QTest::newRow("name and model") << Text(QStringLiteral("Groq")) << Text(QStringLiteral("llama"))
                                    << QStringLiteral("_2024-05-01 09:30 \u00B7 Groq \u00B7 llama_");
    QTest::newRow("name without model") << Text(QStringLiteral("OpenAI")) << Text()
                                        << QStringLiteral("_2024-05-01 09:30 \u00B7 OpenAI_");
    QTest::newRow("empty model keeps its separator") << Text(QStringLiteral("OpenAI")) << Text(QString())
                                                     << QStringLiteral("_2024-05-01 09:30 \u00B7 OpenAI \u00B7 _");
    QTest::newRow("model without name") << Text() << Text(QStringLiteral("llama"))
                                        << QStringLiteral("_2024-05-01 09:30_");
    QTest::newRow("empty name hides the model")
        << Text(QString()) << Text(QStringLiteral("llama")) << QStringLiteral("_2024-05-01 09:30_");
}

void tst_ConversationExporter::informationLine()
{
    QFETCH(std::optional<QString>, providerName);
    QFETCH(std::optional<QString>, model);
    QFETCH(QString, line);
    const QStringList lines = ConversationExporter::markdown(trip(), providerName, model).split(u'\n');
    QCOMPARE(lines.at(2), line);
}

void tst_ConversationExporter::assistantHeading_data()
{
    QTest::addColumn<std::optional<TokenUsage>>("usage");
    QTest::addColumn<QString>("heading");

    using Usage = std::optional<TokenUsage>;
    constexpr qint64 max = std::numeric_limits<qint64>::max();
    QTest::newRow("no usage") << Usage() << QStringLiteral("## Assistant");
    QTest::newRow("all counts absent") << Usage(TokenUsage{}) << QStringLiteral("## Assistant");
    QTest::newRow("zero and zero") << Usage(TokenUsage{0, 0, {}}) << QStringLiteral("## Assistant");
    QTest::newRow("prompt plus completion")
        << Usage(TokenUsage{10, 5, {}}) << QStringLiteral("## Assistant _(15 tokens)_");
    QTest::newRow("completion alone") << Usage(TokenUsage{{}, 7, {}}) << QStringLiteral("## Assistant _(7 tokens)_");
    QTest::newRow("total wins over the sum")
        << Usage(TokenUsage{10, 5, 99}) << QStringLiteral("## Assistant _(99 tokens)_");
    QTest::newRow("a total of zero is shown")
        << Usage(TokenUsage{10, 5, 0}) << QStringLiteral("## Assistant _(0 tokens)_");
    QTest::newRow("a sum past 64 bits stops at the limit")
        << Usage(TokenUsage{max, 2, {}}) << QStringLiteral("## Assistant _(9223372036854775807 tokens)_");
}

void tst_ConversationExporter::assistantHeading()
{
    QFETCH(std::optional<TokenUsage>, usage);
    QFETCH(QString, heading);
    Conversation c = trip();
    c.messages = {ChatMessage(ChatRole::assistant, QStringLiteral("reply"), usage),
                  ChatMessage(ChatRole::system, QStringLiteral("be brief"))};
    const QStringList lines = ConversationExporter::markdown(c, std::nullopt, std::nullopt).split(u'\n');
    QCOMPARE(lines.at(4), heading);
    QCOMPARE(lines.at(8), QStringLiteral("## System"));
}

void tst_ConversationExporter::contentIsWrittenUnchanged()
{
    Conversation c = trip();
    const QString content = QStringLiteral("  # not a heading\n> quote \\ `x` <b>é</b>\n\n");
    c.messages = {ChatMessage(ChatRole::user, content)};
    const QString text = ConversationExporter::markdown(c, std::nullopt, std::nullopt);
    QVERIFY(text.endsWith(QStringLiteral("## You\n\n") + content + QStringLiteral("\n\n")));
}

void tst_ConversationExporter::sanitizedFileName_data()
{
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("stem");

    QTest::newRow("slash and colon") << QStringLiteral("a/b:c") << QStringLiteral("a-b-c");
    QTest::newRow("a run gives a run") << QStringLiteral("x//y") << QStringLiteral("x--y");
    QTest::newRow("all ten") << QStringLiteral("/\\:?%*|\"<>") << QStringLiteral("----------");
    QTest::newRow("spaces only") << QStringLiteral("   ") << QStringLiteral("conversation");
    QTest::newRow("empty") << QString() << QStringLiteral("conversation");
    QTest::newRow("hyphens are not trimmed") << QStringLiteral(" ?? ") << QStringLiteral("--");
    QTest::newRow("line breaks trimmed") << QStringLiteral("\n\tPlan\u2028 ") << QStringLiteral("Plan");
    QTest::newRow("other characters kept") << QStringLiteral("Café. #1 (draft)") << QStringLiteral("Café. #1 (draft)");
}

void tst_ConversationExporter::sanitizedFileName()
{
    QFETCH(QString, title);
    QFETCH(QString, stem);
    QCOMPARE(ConversationExporter::sanitizedFileName(title), stem);
}

void tst_ConversationExporter::export_writesTheDocumentOwnerOnly()
{
    Conversation c = trip();
    c.title = QStringLiteral("Plans: a/b");
    const QString path = m_profile->root() + QStringLiteral("/transcript.md");
    QVERIFY(writeAll(path, QByteArrayLiteral("an older, longer file that must be replaced whole")));
    ScriptedDialogs dialogs;
    dialogs.answer = path;
    QCOMPARE(ConversationExporter::exportTranscript(c, QStringLiteral("Groq"), std::nullopt, dialogs), std::nullopt);

    QCOMPARE(readAll(path), ConversationExporter::markdown(c, QStringLiteral("Groq"), std::nullopt).toUtf8());
    QVERIFY(isOwnerOnly(path));
    const SaveDialogRequest &asked = dialogs.saves.first();
    QCOMPARE(asked.title, QStringLiteral("Export Conversation"));
    QCOMPARE(asked.message, QStringLiteral("Choose where to save the Markdown transcript."));
    QCOMPARE(asked.suggestedName, QStringLiteral("Plans- a-b.md"));
    QVERIFY(asked.nameFilters.first().contains(QStringLiteral("*.md")));

    // Cancelling writes nothing.
    QVERIFY(QFile::remove(path));
    dialogs.answer.reset();
    QCOMPARE(ConversationExporter::exportTranscript(c, std::nullopt, std::nullopt, dialogs), std::nullopt);
    QVERIFY(!QFileInfo::exists(path));
}

void tst_ConversationExporter::export_failureKeepsOldFile()
{
    const QString folder = m_profile->root() + QStringLiteral("/locked");
    const QString path = folder + QStringLiteral("/Trip.md");
    QVERIFY(writeAll(path, QByteArrayLiteral("old transcript")));
    ScriptedDialogs dialogs;
    dialogs.answer = path;
    std::optional<QString> failure;
    {
        ReadOnlyFolder readOnly(folder, m_profile->root());
        if (!readOnly.isEffective())
            QSKIP("cannot make a folder read-only for this user");
        failure = ConversationExporter::exportTranscript(trip(), std::nullopt, std::nullopt, dialogs);
    }
    QVERIFY(failure);
    QVERIFY2(failure->startsWith(QStringLiteral("Export failed: ")), qPrintable(*failure));
    QVERIFY(failure->size() > QStringLiteral("Export failed: ").size());
    QCOMPARE(readAll(path), QByteArrayLiteral("old transcript"));
    QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList{QStringLiteral("Trip.md")});

    dialogs.answer = m_profile->root() + QStringLiteral("/no/such/folder/Trip.md");
    failure = ConversationExporter::exportTranscript(trip(), std::nullopt, std::nullopt, dialogs);
    QVERIFY(failure && failure->startsWith(QStringLiteral("Export failed: ")));
}

QTEST_GUILESS_MAIN(tst_ConversationExporter)
#include "tst_conversationexporter.moc"
