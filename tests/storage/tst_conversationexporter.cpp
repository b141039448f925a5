#include "storage/conversationexporter.h"
#include "storagetestsupport.h"

#include <QTest>
#include <QTimeZone>

#include <ctime>

using namespace StorageTest;

namespace {

using Text = std::optional<QString>;

// Updated 2024-05-01 04:00 UTC, which is 09:30 in Kolkata, the zone the tests run in.
Conversation trip(const QList<ChatMessage> &messages)
{
    const double updated = ReferenceDate::fromDateTime(QDateTime(QDate(2024, 5, 1), QTime(4, 0), QTimeZone::utc()));
    return {QUuid::createUuid(), u"Trip"_s, std::nullopt, messages, updated - 3 * 86400, updated};
}

} // namespace

class tst_ConversationExporter : public QObject
{
    Q_OBJECT

    Profile m_profile;

private slots:
    void initTestCase()
    {
        qputenv("TZ", "Asia/Kolkata");
        tzset();
    }

    void markdown_wholeDocument()
    {
        const QString content = u"  # not a heading\n> quote \\ `x` <b>é</b>\n"_s;
        // The count is the model's to make (here a sum); the heading shows it only when there is one.
        const Conversation c = trip({ChatMessage(ChatRole::user, content),
                                     ChatMessage(ChatRole::assistant, u"the answer"_s, TokenUsage{40, 2, {}}),
                                     ChatMessage(ChatRole::system, u"be brief"_s),
                                     ChatMessage(ChatRole::assistant, u"uncounted"_s, TokenUsage{0, 0, {}})});
        QCOMPARE(ConversationExporter::markdown(c, u"OpenAI"_s, u"gpt-4o-mini"_s),
                 u"# Trip\n\n_2024-05-01 09:30 \u00B7 OpenAI \u00B7 gpt-4o-mini_\n\n## You\n\n"_s + content +
                     u"\n\n## Assistant _(42 tokens)_\n\nthe answer\n\n## System\n\nbe brief\n\n"
                     u"## Assistant\n\nuncounted\n\n"_s);
    }

    void informationLine_data()
    {
        QTest::addColumn<Text>("providerName");
        QTest::addColumn<Text>("model");
        QTest::addColumn<QString>("line");

        QTest::newRow("name without model") << Text(u"Groq"_s) << Text() << u"2024-05-01 09:30 \u00B7 Groq"_s;
        QTest::newRow("empty model keeps its separator")
            << Text(u"Groq"_s) << Text(QString()) << u"2024-05-01 09:30 \u00B7 Groq \u00B7 "_s;
        QTest::newRow("model without name") << Text() << Text(u"llama"_s) << u"2024-05-01 09:30"_s;
        QTest::newRow("empty name hides the model") << Text(QString()) << Text(u"llama"_s) << u"2024-05-01 09:30"_s;
    }
    void informationLine()
    {
        QFETCH(Text, providerName);
        QFETCH(Text, model);
        QFETCH(QString, line);
        QCOMPARE(ConversationExporter::markdown(trip({}), providerName, model), u"# Trip\n\n_"_s + line + u"_\n\n"_s);
    }

    void sanitizedFileName_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("stem");

        QTest::newRow("all ten, each on its own") << u"/\\:?%*|\"<>"_s << u"----------"_s;
        QTest::newRow("spaces only") << u"   "_s << u"conversation"_s;
        QTest::newRow("empty") << QString() << u"conversation"_s;
        QTest::newRow("hyphens are not trimmed") << u" ?? "_s << u"--"_s;
        QTest::newRow("line breaks trimmed") << u"\n\tPlan\u2028 "_s << u"Plan"_s;
        QTest::newRow("other characters kept") << u"Café. #1 (draft)"_s << u"Café. #1 (draft)"_s;
    }
    void sanitizedFileName()
    {
        QFETCH(QString, title);
        QFETCH(QString, stem);
        QCOMPARE(ConversationExporter::sanitizedFileName(title), stem);
    }

    void export_writesTheDocumentOwnerOnly_orKeepsTheOldOne()
    {
        Conversation c = trip({ChatMessage(ChatRole::user, u"the question"_s)});
        c.title = u"Plans: a/b"_s;
        const QString path = m_profile.root() + u"/transcript.md"_s;
        QVERIFY(writeAll(path, "an older, longer file that must be replaced whole"_ba));
        ScriptedDialogs dialogs(path);
        QCOMPARE(ConversationExporter::exportTranscript(c, u"Groq"_s, {}, dialogs), std::nullopt);
        QCOMPARE(readAll(path), ConversationExporter::markdown(c, u"Groq"_s, {}).toUtf8());
        QVERIFY(isOwnerOnly(path));
        const SaveDialogRequest &asked = dialogs.saves.first();
        QCOMPARE(asked.title, u"Export Conversation"_s);
        QCOMPARE(asked.message, u"Choose where to save the Markdown transcript."_s);
        QCOMPARE(asked.suggestedName, u"Plans- a-b.md"_s);
        QVERIFY(asked.nameFilters.first().contains(u"*.md"_s));

        // Cancelling writes nothing.
        QVERIFY(QFile::remove(path));
        dialogs.answer.reset();
        QCOMPARE(ConversationExporter::exportTranscript(c, {}, {}, dialogs), std::nullopt);
        QVERIFY(!QFileInfo::exists(path));

        // A failed write keeps the old file whole and leaves nothing beside it.
        const QString folder = m_profile.root() + u"/locked"_s;
        dialogs.answer = folder + u"/Trip.md"_s;
        QVERIFY(writeAll(*dialogs.answer, "old transcript"_ba));
        std::optional<QString> failure;
        if (!whileReadOnly(folder, m_profile.root(),
                           [&] { failure = ConversationExporter::exportTranscript(c, {}, {}, dialogs); }))
            QSKIP("cannot make a folder read-only for this user");
        const QString prefix = u"Export failed: "_s;
        QVERIFY(failure && failure->startsWith(prefix) && failure->size() > prefix.size());
        QCOMPARE(readAll(*dialogs.answer), "old transcript"_ba);
        QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList{u"Trip.md"_s});
    }
};

QTEST_GUILESS_MAIN(tst_ConversationExporter)
#include "tst_conversationexporter.moc"
