#include "storage/conversationstore.h"
#include "storage/historysearch.h"
#include "storagetestsupport.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

// A history written as another program (or an older Verbolt) might have: escapes of every kind in
// the stored text, which the search reads as stored.
const char historyFile[] = VERBOLT_TEST_DATA "/search-history.json";

struct SearchCase
{
    const char *name;
    QString typed;
    QStringList titles;
    QString context; // of the first result
    QStringList bold;
    qsizetype messageIndex;
};

// count conversations titled "Chat <n>", each of one message: text(n).
QList<Conversation> chats(int count, const std::function<QString(int)> &text)
{
    QList<Conversation> many;
    for (int i = 0; i < count; ++i) {
        Conversation c;
        c.id = QUuid::createUuid();
        c.title = u"Chat %1"_s.arg(i);
        c.messages = {ChatMessage(ChatRole::user, text(i))};
        many.append(c);
    }
    return many;
}

// The results of every batch a search sent, in turn.
QList<SearchResult> resultsIn(const QSignalSpy &found)
{
    QList<SearchResult> results;
    for (const QList<QVariant> &batch : found)
        results.append(batch.first().value<QList<SearchResult>>());
    return results;
}

} // namespace

Q_DECLARE_METATYPE(SearchCase)

class tst_HistorySearch final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QString path = m_dir.filePath(u"conversations.json"_s);
        QVERIFY(QFile::copy(QString::fromUtf8(historyFile), path));
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
        m_store = std::make_unique<ConversationStore>(path);
        QCOMPARE(m_store->conversations().size(), 4);
        QVERIFY(m_store->conversations().first().messages.stored().has_value());
    }

    void search_data()
    {
        QTest::addColumn<SearchCase>("row");
        using L = QStringList;
        const SearchCase rows[] = {
            {"escaped accent, folded", u"cafe"_s, L{u"Trip plans"_s}, u"Try the Café de Flore."_s,
             L{u"Caf"_s + QChar(0xe9)}, 1},
            {"escaped quotes and line breaks", u"\"famous\""_s, L{u"Trip plans"_s}, u"It is \"famous\" for a reason."_s,
             L{u"\"famous\""_s}, 1},
            {"words across messages and title", u"trip paris flore"_s, L{u"Trip plans"_s}, u"…to eat in Paris?"_s,
             L{u"Paris"_s}, 0},
            {"escaped backslashes", u"c:\\users"_s, L{u"Rust help"_s}, u"Path C:\\Users\\dev fails"_s,
             L{u"C:\\Users"_s}, 0},
            {"surrogate pair escape", u"😀"_s, L{u"Rust help"_s}, u"A smile 😀 and 日本語テキスト."_s, L{u"😀"_s}, 1},
            {"japanese substring, cut before at a space", u"語テキ"_s, L{u"Rust help"_s}, u"…😀 and 日本語テキスト."_s,
             L{u"語テキ"_s}, 1},
            {"title only", u"content"_s, L{u"content"_s}, QString(), L{}, -1},
            {"keys and ids are not text", u"assistant"_s, L{}, QString(), L{}, -1},
            {"in two conversations, newest first", u"a"_s, L{u"Trip plans"_s, u"Rust help"_s},
             u"Where to eat in Paris?"_s, L{u"a"_s, u"a"_s}, 0},
            {"one word missing", u"paris rust"_s, L{}, QString(), L{}, -1},
            // What a conversation shows is what it is found by: a reply regenerated away is not.
            {"only in a hidden version", u"zebra"_s, L{}, QString(), L{}, -1},
            {"in the version shown", u"quoll"_s, L{u"Versions"_s}, u"…try, the quoll"_s, L{u"quoll"_s}, 1},
        };
        for (const SearchCase &row : rows)
            QTest::newRow(row.name) << row;
    }
    void search()
    {
        QFETCH(SearchCase, row);
        const auto &[name, typed, titles, context, bold, messageIndex] = row;

        HistorySearch search;
        QSignalSpy found(&search, &HistorySearch::resultsFound);
        QSignalSpy finished(&search, &HistorySearch::finished);
        search.start(m_store->conversations(), typed);
        QVERIFY(finished.wait(5000) || finished.size() == 1);
        const QList<SearchResult> results = resultsIn(found);
        QCOMPARE(StorageTest::each(results, &SearchResult::title), titles);
        // Messages decoded (as after an edit) are found by the same words.
        QStringList decodedTitles;
        for (Conversation c : m_store->conversations()) {
            c.messages = c.messages.list();
            if (HistorySearch::searchConversation(c, TextSearch::Query(typed)))
                decodedTitles.append(c.title);
        }
        QCOMPARE(decodedTitles, titles);
        if (results.isEmpty())
            return;
        QCOMPARE(results.first().context, context);
        QStringList gotBold;
        for (const TextSearch::Range &hit : results.first().contextHits)
            gotBold.append(context.mid(hit.start, hit.length));
        QCOMPARE(gotBold, bold);
        QCOMPARE(results.first().messageIndex, messageIndex);
        // The history stays in its stored form: a search must not decode it for good.
        QVERIFY(m_store->conversations().first().messages.stored().has_value());
    }

    void storedAndDecoded_findTheSameWords_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<bool>("found");
        QTest::newRow("upper case in every lane of a long ASCII run")
            << u"XXXXXXXXABCDEFGHIJKLMNOPQRSTUVWXYZ!"_s << u"qrstuvwxyz"_s << true;
        QTest::newRow("the neighbours of A and Z are not letters")
            << u"aaaaaaaa@@@@[[[[zzzz"_s << u"````{{{{"_s << false;
        QTest::newRow("and are found as themselves") << u"aaaaaaaa@@@@[[[[zzzz"_s << u"@@[[ [[zz"_s << true;
        QTest::newRow("accents folded between ASCII runs")
            << u"An ÉCOLE, an Ünïcödé text, and more plain words"_s << u"ecole unicode"_s << true;
        QTest::newRow("escapes inside a long run") << u"line one\tab\\back\"quoted\" end"_s << u"\\back\""_s << true;
        QTest::newRow("emoji and Japanese") << u"A smile 😀 and 日本語テキスト"_s << u"😀 本語"_s << true;
        QTest::newRow("capitals beside accents deep in long runs")
            << u"Plain words run on ahead of CAFÉS AND BARS, then more plain words ahead of the HÔTELDEVILLE"_s
            << u"cafes hoteldeville"_s << true;
        QTest::newRow("a backslash in the middle of a long run")
            << u"0123456789ABCDEFGHIJ\\KLMNOPQRSTUVWXYZ0123456789"_s << u"ghij\\klm"_s << true;
        QTest::newRow("one word missing") << u"Plenty of ordinary words here"_s << u"ordinary absent"_s << false;
    }
    void storedAndDecoded_findTheSameWords()
    {
        QFETCH(QString, text);
        QFETCH(QString, typed);
        QFETCH(bool, found);
        const QString path = m_dir.filePath(u"same-%1.json"_s.arg(++m_files));
        {
            ConversationStore writer(path);
            const Conversation c = writer.newChat(std::nullopt);
            writer.updateMessages(c.id,
                                  {ChatMessage(ChatRole::user, u"first"_s), ChatMessage(ChatRole::assistant, text)});
        }
        ConversationStore reader(path);
        const Conversation stored = reader.conversations().first();
        QVERIFY(stored.messages.stored().has_value());
        Conversation decoded = stored;
        decoded.messages = stored.messages.list();
        QVERIFY(!decoded.messages.stored().has_value());

        const TextSearch::Query query(typed);
        const auto fromBytes = HistorySearch::searchConversation(stored, query);
        const auto fromText = HistorySearch::searchConversation(decoded, query);
        QCOMPARE(fromBytes.has_value(), found);
        QCOMPARE(fromText.has_value(), found);
        if (found) {
            QCOMPARE(fromBytes->messageIndex, 1);
            QCOMPARE(fromBytes->context, fromText->context);
        }
    }

    void longLine_contextIsOneLineAroundTheHit()
    {
        const QString before = u"word "_s.repeated(40);
        const Conversation c = chats(1, [&](int) -> QString {
                                   return u"first line\n"_s + before + u"needle "_s + before + u"\nlast"_s;
                               }).first();
        const auto result = HistorySearch::searchConversation(c, TextSearch::Query(u"needle"_s));
        QVERIFY(result);
        QVERIFY(result->context.startsWith(u'…'));
        QVERIFY(result->context.endsWith(u'…'));
        QVERIFY(!result->context.contains(u"line"_s));
        QCOMPARE(result->contextHits.size(), 1);
        QCOMPARE(result->context.mid(result->contextHits.first().start, 6), u"needle"_s);
    }

    // Results arrive in the list's order, however the workers' chunks finish; a search started
    // before is cancelled and tells nothing more.
    void manyConversations_arriveInListOrder_andCancelTheSearchBefore()
    {
        // Several chunks for every worker, of uneven weight so that they finish out of order.
        const QList<Conversation> many = chats(1000, [](int i) -> QString {
            return u"filler "_s.repeated(i % 7 == 0 ? 2000 : 10) + (i % 3 == 0 ? u"needle"_s : u"hay"_s);
        });
        QStringList expected;
        for (int i = 0; i < 1000; i += 3)
            expected.append(u"Chat %1"_s.arg(i));
        HistorySearch search;
        QSignalSpy found(&search, &HistorySearch::resultsFound);
        QSignalSpy finished(&search, &HistorySearch::finished);
        search.start(many, u"filler"_s);
        search.start(many, u"needle"_s);
        QVERIFY(finished.wait(20000));
        QTest::qWait(50);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(StorageTest::each(resultsIn(found), &SearchResult::title), expected);
    }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ConversationStore> m_store;
    int m_files = 0;
};

QTEST_GUILESS_MAIN(tst_HistorySearch)
#include "tst_historysearch.moc"
