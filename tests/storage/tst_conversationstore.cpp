#include "storage/conversationstore.h"
#include "storagetestsupport.h"

#include <QSignalSpy>
#include <QTest>

#include <array>

using namespace StorageTest;

namespace {

// However the file is written (by us, by hand, by another tool), it loads as the same records and
// is written back whole; a conversation larger than the writer's chunks too, and a history large
// enough to be read in two halves.
struct Writing
{
    int count;
    int titleSize;
    QByteArray around; // before the list, and after it when blank
    QByteArray replace;
    QByteArray with;
    bool keptAsStored; // the messages stay undecoded until read: the history costs about its size
};

// count conversations with titles of titleSize characters, of three dates: each date's own keep the file's order.
QList<Conversation> history(int count, int titleSize)
{
    QList<Conversation> list;
    for (int i = 0; i < count; ++i) {
        Conversation c = conversation(QString(titleSize, QChar(u'a' + i % 26)), 100 + i % 3);
        c.messages.append(ChatMessage(ChatRole::user, u"a \"quoted\\\" \\ path/to \u00e9 \U0001F600"_s));
        list.append(c);
    }
    return list;
}

} // namespace

Q_DECLARE_METATYPE(Writing)

class tst_ConversationStore : public QObject
{
    Q_OBJECT

    Profile m_profile;
    const QString m_file = m_profile.conversationsFile();
    const QString m_folder = QFileInfo(m_file).absolutePath();

    bool writeHistory(const QList<Conversation> &list) { return writeAll(m_file, encodeJson(list)); }
    QList<Conversation> storedHistory()
    {
        return decodeJson<QList<Conversation>>(readAll(m_file)).value_or(QList<Conversation>());
    }
    // The file once everything the store handed to its writer is on disk.
    QList<Conversation> savedBy(ConversationStore &store)
    {
        store.waitForSaved();
        return storedHistory();
    }
    QStringList asideCopies() const { return QDir(m_folder).entryList({u"conversations.unreadable-*"_s}, QDir::Files); }
    // Three conversations in the file, newest first.
    std::array<Conversation, 3> storedThree()
    {
        const std::array three{conversation(u"a"_s, 300), conversation(u"b"_s, 200), conversation(u"c"_s, 100)};
        writeHistory({three.begin(), three.end()});
        return three;
    }

private slots:
    void init() { QDir(m_folder).removeRecursively(); }

    void load_readsEveryWayOfWriting_data()
    {
        QTest::addColumn<Writing>("row");
        QTest::newRow("compact") << Writing{1, 10, {}, {}, {}, true};
        QTest::newRow("over 4 MB") << Writing{1, 5 << 20, {}, {}, {}, true};
        QTest::newRow("many conversations over 1 MB") << Writing{64, 20000, {}, {}, {}, true};
        QTest::newRow("messages with a member named like a conversation's last")
            << Writing{64, 20000, QByteArray(), "\"role\"", "\"updatedAt\":1,\"role\"", true};
        QTest::newRow("after a byte-order mark") << Writing{1, 10, "\xEF\xBB\xBF", {}, {}, true};
        QTest::newRow("blanks between tokens") << Writing{1, 10, " \n", "\"messages\":[{", "\"messages\" : [ {", false};
        QTest::newRow("an escaped key") << Writing{1, 10, {}, "\"messages\"", "\"m\\u0065ssages\"", false};
        QTest::newRow("slashes unescaped") << Writing{1, 10, {}, "\\/", "/", true};
    }
    void load_readsEveryWayOfWriting()
    {
        QFETCH(Writing, row);
        const auto &[count, titleSize, around, replace, with, keptAsStored] = row;
        const QList<Conversation> written = history(count, titleSize);
        QByteArray bytes = encodeJson(written);
        if (!replace.isEmpty())
            bytes.replace(replace, with);
        QVERIFY(writeAll(m_file, around + bytes + (around.startsWith(' ') ? around : QByteArray())));
        QList<Conversation> expected = written;
        std::stable_sort(expected.begin(), expected.end(),
                         [](const Conversation &a, const Conversation &b) { return a.updatedAt > b.updatedAt; });

        ConversationStore store;
        const auto storedForm = [&] { return store.conversations().last().messages.stored().has_value(); };
        QCOMPARE(store.selected(), std::optional(expected.first()));
        QCOMPARE(storedForm(), keptAsStored);
        expected.prepend(store.newChat(std::nullopt));
        QCOMPARE(savedBy(store), expected);
        QCOMPARE(storedForm(), keptAsStored); // saving did not decode it
        QCOMPARE(store.conversations(), expected);
        QVERIFY(!store.keptAsidePath());
    }

    void undecodableFile_isKeptAside_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const auto two = encodeJson(QList{conversation(u"a"_s, 1), conversation(u"b"_s, 2)});
        QTest::newRow("not JSON") << "\xff\xfe garbage"_ba;
        QTest::newRow("cut short") << two.chopped(5);
        QTest::newRow("one record lacks updatedAt") << QByteArray(two).replace(",\"updatedAt\":2", "");
        QTest::newRow("a message of unknown role") << QByteArray(two).replace("\"assistant\"", "\"robot\"");
        QTest::newRow("text after the list") << two + "x";
        QTest::newRow("a comma too many") << QByteArray(two).insert(two.size() - 1, ',');
        QTest::newRow("a comma missing") << QByteArray(two).replace("},{", "}{");
        const QByteArray large = encodeJson(history(64, 20000));
        const qsizetype lastRole = large.lastIndexOf("\"assistant\"");
        QTest::newRow("a bad record late in a large history") << QByteArray(large).replace(lastRole, 11, "\"robot\"");
        QTest::newRow("a bad record early in a large history") << QByteArray(large).replace(",\"updatedAt\":100", "");
    }
    void undecodableFile_isKeptAside()
    {
        QFETCH(QByteArray, bytes);
        QVERIFY(writeAll(m_file, bytes));

        ConversationStore store;
        QVERIFY(store.conversations().isEmpty());
        QCOMPARE(readAll(m_file), bytes); // untouched at start
        const QFileInfo aside(store.keptAsidePath().value_or(QString()));
        QCOMPARE(aside.absolutePath(), m_folder);
        QVERIFY(aside.fileName().startsWith(u"conversations.unreadable-"_s));
        QVERIFY(isOwnerOnly(aside.filePath()));

        const Conversation created = store.newChat(std::nullopt);
        QCOMPARE(savedBy(store), QList<Conversation>{created});
        QCOMPARE(readAll(aside.filePath()), bytes);

        // Starting again on the same bytes keeps no second copy; other bytes get their own.
        QVERIFY(writeAll(m_file, bytes));
        QCOMPARE(ConversationStore().keptAsidePath(), store.keptAsidePath());
        QVERIFY(writeAll(m_file, bytes + "x"));
        QVERIFY(ConversationStore().keptAsidePath() != store.keptAsidePath());
        QCOMPARE(asideCopies().size(), 2);
    }

    void newAndDeletedChats_moveTheSelection_newOnesOpenWithTheDefaultPrompt()
    {
        ConversationStore store;
        QVERIFY(store.conversations().isEmpty() && !store.selectedID());
        QVERIFY(!QFileInfo::exists(m_file)); // a first start makes the folder only
        QVERIFY(QFileInfo(m_folder).isDir());
        QSignalSpy listSpy(&store, &ConversationStore::conversationsChanged);
        QSignalSpy selectionSpy(&store, &ConversationStore::selectedIDChanged);

        const QUuid providerID = QUuid::createUuid();
        QCOMPARE(store.newChat(providerID).providerID, std::optional<QUuid>(providerID));
        const Conversation created = store.newChat(std::nullopt);
        QCOMPARE(created.title, u"New Chat"_s);
        QVERIFY(!created.providerID && created.messages.isEmpty());
        QCOMPARE(created.createdAt, created.updatedAt);
        QCOMPARE(store.conversations().first(), created);
        QCOMPARE(store.selectedID(), std::optional(created.id));
        QCOMPARE(savedBy(store), store.conversations());
        QCOMPARE(listSpy.count(), 2);
        QCOMPARE(selectionSpy.count(), 2);

        // The selection is not stored: a restart selects the newest.
        store.setSelectedID(store.conversations().last().id);
        QCOMPARE(ConversationStore().selectedID(), std::optional(created.id));

        // The default system prompt, kept in the preferences, opens every new conversation; a blank
        // one means none.
        store.setDefaultSystemPrompt(u"Be brief."_s);
        QCOMPARE(ConversationStore().defaultSystemPrompt(), u"Be brief."_s);
        const Conversation prompted = store.newChat(std::nullopt);
        QCOMPARE(prompted.messages.size(), 1);
        QCOMPARE(prompted.messages.first().role, ChatRole::system);
        QCOMPARE(prompted.messages.first().content, u"Be brief."_s);

        store.setDefaultSystemPrompt(u" \n"_s);
        QCOMPARE(store.defaultSystemPrompt(), QString());
        QVERIFY(store.newChat(std::nullopt).messages.isEmpty());

        // Deleting another keeps the selection; deleting the selected one selects the newest left.
        store.setSelectedID(created.id);
        store.deleteConversation(Conversation(store.conversations().last()));
        store.deleteConversation(conversation(u"stranger"_s, 1));
        QCOMPARE(store.conversations().size(), 3);
        QCOMPARE(store.selectedID(), std::optional(created.id));
        store.deleteConversation(created);
        QCOMPARE(store.selectedID(), std::optional(store.conversations().first().id));
        for (const Conversation &left : QList(store.conversations()))
            store.deleteConversation(left);
        QVERIFY(!store.selectedID());
        QCOMPARE(savedBy(store), QList<Conversation>());
    }

    // Each save encodes only what changed since the last one; the file must still equal the
    // whole list encoded, whatever the operation.
    void operations_keepOrderAndFileInStep()
    {
        const auto [a, b, c] = storedThree();
        ConversationStore store;
        double now = 800000000; // moved by hand, so the order never depends on the machine's speed
        store.setClock([&now] { return now += 1; });
        const auto fileMatches = [&] {
            store.waitForSaved();
            return readAll(m_file) == encodeJson(store.conversations());
        };
        QSignalSpy updated(&store, &ConversationStore::conversationUpdated);

        store.updateMessages(c.id, {ChatMessage(ChatRole::user, u"more"_s)});
        QCOMPARE(store.conversations().first().title, u"c"_s); // a chat with a title of its own keeps it
        QCOMPARE(ids(store.conversations()), (QList<QUuid>{c.id, a.id, b.id}));
        QCOMPARE(store.conversations().first().updatedAt, now);
        QCOMPARE(store.conversations().first().createdAt, c.createdAt);
        QCOMPARE(store.selectedID(), std::optional(a.id)); // the selection does not follow
        QVERIFY(fileMatches());
        QVERIFY(isOwnerOnly(m_file));

        store.rename(b.id, u"\n  Word  \t"_s);
        QCOMPARE(store.conversations().at(2).title, u"Word"_s);
        QCOMPARE(store.conversations().at(2).updatedAt, b.updatedAt);
        QVERIFY(fileMatches());
        const Conversation created = store.newChat(QUuid::createUuid());
        QVERIFY(fileMatches());
        // A new chat takes its title from the first user words, once there are any.
        store.updateMessages(created.id, {ChatMessage(ChatRole::user, u" \n "_s)});
        QCOMPARE(store.conversations().first().title, u"New Chat"_s);
        store.updateMessages(created.id,
                             {ChatMessage(ChatRole::assistant, u"Hi"_s), ChatMessage(ChatRole::user, u" Hello "_s)});
        QCOMPARE(store.conversations().first().title, u"Hello"_s);
        const Conversation d = conversation(u"d"_s, 250);
        store.merge({conversation(u"c again"_s, 50, c.id), d});
        QVERIFY(fileMatches());
        QList<QUuid> updatedIDs;
        for (const QList<QVariant> &signal : std::as_const(updated))
            updatedIDs.append(signal.first().toUuid());
        QCOMPARE(updatedIDs, (QList<QUuid>{c.id, b.id, created.id, created.id, c.id, d.id})); // not for newChat
        store.deleteConversation(created);
        QVERIFY(fileMatches());
        QList<Conversation> edited = store.conversations();
        edited.first().title = u"edited outside"_s;
        std::reverse(edited.begin(), edited.end());
        store.setConversations(edited); // saved by the next operation
        store.rename(edited.first().id, u"saved now"_s);
        QVERIFY(fileMatches());
        QCOMPARE(storedHistory().last().title, u"edited outside"_s);

        // Saves handed over faster than they are written still end with the newest state.
        for (int i = 0; i < 50; ++i)
            store.rename(a.id, QString::number(i));
        QVERIFY(fileMatches());

        // Unknown ids and blank titles change nothing, and save nothing.
        const QList<Conversation> before = store.conversations();
        QVERIFY(QFile::remove(m_file));
        QSignalSpy listSpy(&store, &ConversationStore::conversationsChanged);
        store.updateMessages(QUuid::createUuid(), {ChatMessage(ChatRole::user, u"x"_s)});
        store.rename(QUuid::createUuid(), u"x"_s);
        store.rename(a.id, u" \t\n "_s);
        QCOMPARE(store.conversations(), before);
        store.waitForSaved();
        QVERIFY(!QFileInfo::exists(m_file));
        QCOMPARE(listSpy.count(), 0);
    }

    // Two stores on one file stand for two processes: neither save may drop what the other saved.
    void anotherWritersChanges_areMergedIntoTheSave()
    {
        const auto [a, b, c] = storedThree();
        ConversationStore mine;
        ConversationStore other;
        double now = 1000;
        mine.setClock([&now] { return now += 1; });
        other.setClock([&now] { return now += 1; });
        QSignalSpy updated(&mine, &ConversationStore::conversationUpdated);

        const Conversation theirs = other.newChat(std::nullopt);
        other.rename(b.id, u"renamed elsewhere"_s);
        other.rename(a.id, u"renamed there too"_s);
        other.waitForSaved();

        mine.rename(a.id, u"mine wins"_s); // changed here as well: this process's record is saved
        mine.deleteConversation(c);
        const Conversation ours = mine.newChat(std::nullopt);
        const QList<Conversation> saved = savedBy(mine);

        QCOMPARE(ids(saved), (QList<QUuid>{ours.id, theirs.id, a.id, b.id}));
        QCOMPARE(saved.at(2).title, u"mine wins"_s);
        QCOMPARE(saved.at(3).title, u"renamed elsewhere"_s);
        QCOMPARE(mine.conversations(), saved);
        QCOMPARE(mine.selectedID(), std::optional(ours.id));
        QVERIFY(updated.contains(QVariantList{QVariant::fromValue(theirs.id)}));
        QVERIFY(updated.contains(QVariantList{QVariant::fromValue(b.id)}));

        // Bytes another program left that cannot be read are kept aside before they are replaced.
        QVERIFY(writeAll(m_file, "not a history"_ba));
        mine.rename(b.id, u"again"_s);
        QCOMPARE(savedBy(mine), mine.conversations());
        QCOMPARE(readAll(mine.keptAsidePath().value_or(QString())), "not a history"_ba);
    }

    // A folder that cannot be written keeps the old file whole and the changes in memory, even a
    // history that could not be read nor kept aside; once it can be written, the next save carries
    // everything, and keeps such a history aside first.
    void readOnlyFolder_leavesOldFileWhole_data()
    {
        QTest::addColumn<bool>("unreadable");
        QTest::newRow("readable history") << false;
        QTest::newRow("unreadable history") << true;
    }
    void readOnlyFolder_leavesOldFileWhole()
    {
        QFETCH(bool, unreadable);
        QVERIFY(unreadable ? writeAll(m_file, R"([{"broken":)"_ba) : writeHistory({conversation(u"old"_s, 1)}));
        const QByteArray before = readAll(m_file);
        // An unreadable history is met with the folder already read-only, so it cannot be kept aside.
        auto store = unreadable ? nullptr : std::make_unique<ConversationStore>(m_file);
        std::optional<QString> error;
        if (!whileReadOnly(m_folder, m_profile.root(), [&] {
                if (!store)
                    store = std::make_unique<ConversationStore>(m_file);
                store->updateMessages(store->newChat(std::nullopt).id, {ChatMessage(ChatRole::user, u"in memory"_s)});
                store->waitForSaved();
                error = store->lastSaveError();
            }))
            QSKIP("cannot make a folder read-only for this user");
        QVERIFY(error);
        QVERIFY(!store->keptAsidePath());
        QCOMPARE(store->conversations().first().title, u"in memory"_s);
        QCOMPARE(store->conversations().size(), unreadable ? 1 : 2);
        QCOMPARE(readAll(m_file), before);
        QCOMPARE(QDir(m_folder).entryList(QDir::Files), QStringList{u"conversations.json"_s});

        store->rename(store->conversations().last().id, u"back"_s);
        QCOMPARE(savedBy(*store), store->conversations());
        QVERIFY(!store->lastSaveError());
        QCOMPARE(store->keptAsidePath().has_value(), unreadable);
        if (unreadable)
            QCOMPARE(readAll(*store->keptAsidePath()), before);
    }
};

QTEST_GUILESS_MAIN(tst_ConversationStore)
#include "tst_conversationstore.moc"
