#include "storage/conversationstore.h"
#include "storagetestsupport.h"

#include <QSignalSpy>
#include <QTest>

using namespace StorageTest;

namespace {

QList<QUuid> ids(const QList<Conversation> &list)
{
    QList<QUuid> out;
    for (const Conversation &c : list)
        out.append(c.id);
    return out;
}

QList<Conversation> storedList(const QString &path)
{
    return decodeJson<QList<Conversation>>(readAll(path)).value_or(QList<Conversation>{});
}

// A clock the test moves by hand, so orderings never depend on the machine's speed.
struct ManualClock
{
    double now = 800000000;
    std::function<double()> function()
    {
        return [this] { return now += 1; };
    }
};

} // namespace

class tst_ConversationStore : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void firstStart_createsNoFile();
    void load_sortsNewestFirstStably();
    void load_readsFilesOfEverySize_data();
    void load_readsFilesOfEverySize();
    void undecodableFile_isKeptAside_data();
    void undecodableFile_isKeptAside();
    void unreadableFileThatCannotBeKeptAside_isNeverOverwritten();
    void newChat_isSelectedFirstAndSaved();
    void updateMessages_titleRules_data();
    void updateMessages_titleRules();
    void updateMessages_movesToFrontAndStamps();
    void unknownIdsAndBlankTitles_changeNothing();
    void rename_trimsInPlace();
    void delete_movesSelection();
    void merge_replacesWholeAndResorts();
    void file_isOwnerOnlyCompactJson();
    void file_matchesMemoryAfterEveryOperation();
    void readOnlyFolder_leavesOldFileWhole();

private:
    std::unique_ptr<Profile> m_profile;
    QString m_file;
};

void tst_ConversationStore::initTestCase()
{
    m_profile = std::make_unique<Profile>();
    QVERIFY(m_profile->isValid());
    m_file = m_profile->conversationsFile();
}

void tst_ConversationStore::init()
{
    QDir dir(QFileInfo(m_file).absolutePath());
    dir.removeRecursively();
}

void tst_ConversationStore::firstStart_createsNoFile()
{
    ConversationStore store;
    QCOMPARE(store.fileURL(), m_file);
    QVERIFY(store.conversations().isEmpty());
    QVERIFY(!store.selectedID());
    QVERIFY(!store.selected());
    QVERIFY(!QFileInfo::exists(m_file));
    QVERIFY(QFileInfo(QFileInfo(m_file).absolutePath()).isDir());
}

void tst_ConversationStore::load_sortsNewestFirstStably()
{
    const Conversation old = conversation(QStringLiteral("old"), 100);
    const Conversation tieA = conversation(QStringLiteral("tieA"), 200);
    const Conversation newest = conversation(QStringLiteral("newest"), 300.5);
    const Conversation tieB = conversation(QStringLiteral("tieB"), 200);
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{old, tieA, newest, tieB})));

    ConversationStore store;
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{newest.id, tieA.id, tieB.id, old.id}));
    QCOMPARE(store.selected(), std::optional<Conversation>(newest));
}

void tst_ConversationStore::load_readsFilesOfEverySize_data()
{
    // Around the page boundaries where the file is mapped or read.
    QTest::addColumn<int>("size");
    for (const int size : {4000, 4031, 4032, 4033, 4095, 4096, 4097, 8192})
        QTest::addRow("%d bytes", size) << size;
}

void tst_ConversationStore::load_readsFilesOfEverySize()
{
    QFETCH(int, size);
    Conversation c = conversation(QStringLiteral("x"), 100);
    const qsizetype base = encodeJson(QList<Conversation>{c}).size();
    QVERIFY(base < size);
    c.title = QString(size - base + 1, u'x');
    const QByteArray bytes = encodeJson(QList<Conversation>{c});
    QCOMPARE(bytes.size(), size);
    QVERIFY(writeAll(m_file, bytes));

    ConversationStore store;
    QCOMPARE(store.conversations(), QList<Conversation>{c});
    QVERIFY(!store.keptAsidePath());
}

void tst_ConversationStore::undecodableFile_isKeptAside_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("not JSON") << QByteArrayLiteral("\xff\xfe garbage");
    QTest::newRow("cut short") << encodeJson(QList<Conversation>{conversation(QStringLiteral("a"), 1)}).chopped(5);
    QTest::newRow("an object") << QByteArrayLiteral("{\"conversations\":[]}");
    QByteArray lacking =
        encodeJson(QList<Conversation>{conversation(QStringLiteral("a"), 1), conversation(QStringLiteral("b"), 2)});
    lacking.replace(lacking.lastIndexOf(",\"updatedAt\":2"), qsizetype(sizeof(",\"updatedAt\":2") - 1), "");
    QTest::newRow("one record lacks updatedAt") << lacking;
}

void tst_ConversationStore::undecodableFile_isKeptAside()
{
    QFETCH(QByteArray, bytes);
    QVERIFY(writeAll(m_file, bytes));

    ConversationStore store;
    QVERIFY(store.conversations().isEmpty());
    QVERIFY(!store.selectedID());
    QCOMPARE(readAll(m_file), bytes); // untouched at start
    const auto aside = store.keptAsidePath();
    QVERIFY(aside);
    QCOMPARE(QFileInfo(*aside).absolutePath(), QFileInfo(m_file).absolutePath());
    QVERIFY(QFileInfo(*aside).fileName().startsWith(QStringLiteral("conversations.unreadable-")));
    QCOMPARE(readAll(*aside), bytes);
    QVERIFY(isOwnerOnly(*aside));

    const Conversation created = store.newChat(std::nullopt);
    QCOMPARE(storedList(m_file), QList<Conversation>{created});
    QCOMPARE(readAll(*aside), bytes);
}

void tst_ConversationStore::unreadableFileThatCannotBeKeptAside_isNeverOverwritten()
{
    const QByteArray bytes = QByteArrayLiteral("[{\"broken\":");
    QVERIFY(writeAll(m_file, bytes));
    const QString folder = QFileInfo(m_file).absolutePath();
    {
        ReadOnlyFolder readOnly(folder, m_profile->root());
        if (!readOnly.isEffective())
            QSKIP("cannot make a folder read-only for this user");
        ConversationStore store(m_file);
        QVERIFY(!store.keptAsidePath());
        store.newChat(std::nullopt);
        QCOMPARE(store.conversations().size(), 1);
        QVERIFY(store.lastSaveError());
    }
    QCOMPARE(readAll(m_file), bytes);
    QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList{QStringLiteral("conversations.json")});
}

void tst_ConversationStore::newChat_isSelectedFirstAndSaved()
{
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{conversation(QStringLiteral("older"), 100)})));
    ConversationStore store;
    QSignalSpy listSpy(&store, &ConversationStore::conversationsChanged);
    QSignalSpy selectionSpy(&store, &ConversationStore::selectedIDChanged);

    const QUuid providerID = QUuid::createUuid();
    const Conversation withProvider = store.newChat(providerID);
    const Conversation without = store.newChat(std::nullopt);
    QCOMPARE(without.title, QStringLiteral("New Chat"));
    QVERIFY(!without.providerID);
    QVERIFY(without.messages.isEmpty());
    QCOMPARE(without.createdAt, without.updatedAt);
    QCOMPARE(withProvider.providerID, std::optional<QUuid>(providerID));
    QVERIFY(without.id != withProvider.id);
    QCOMPARE(store.conversations().first(), without);
    QCOMPARE(store.selectedID(), std::optional<QUuid>(without.id));
    QCOMPARE(storedList(m_file), store.conversations());
    QCOMPARE(listSpy.count(), 2);
    QCOMPARE(selectionSpy.count(), 2);

    // The selection is not stored: a restart selects the newest.
    store.setSelectedID(store.conversations().last().id);
    ConversationStore restarted;
    QCOMPARE(restarted.selectedID(), std::optional<QUuid>(without.id));
}

void tst_ConversationStore::updateMessages_titleRules_data()
{
    QTest::addColumn<QString>("title");
    QTest::addColumn<QList<ChatMessage>>("messages");
    QTest::addColumn<QString>("expected");

    const ChatMessage hello(ChatRole::user, QStringLiteral("  Hello  "));
    const ChatMessage reply(ChatRole::assistant, QStringLiteral("Hi there"));
    QTest::newRow("new chat takes the first user words")
        << QStringLiteral("New Chat") << QList{hello, reply} << QStringLiteral("Hello");
    QTest::newRow("only a reply keeps New Chat")
        << QStringLiteral("New Chat") << QList{reply} << QStringLiteral("New Chat");
    QTest::newRow("blank question keeps New Chat")
        << QStringLiteral("New Chat") << QList{ChatMessage(ChatRole::user, QStringLiteral(" \n "))}
        << QStringLiteral("New Chat");
    QTest::newRow("a renamed chat keeps its title")
        << QStringLiteral("Trip plans") << QList{hello} << QStringLiteral("Trip plans");
}

void tst_ConversationStore::updateMessages_titleRules()
{
    QFETCH(QString, title);
    QFETCH(QList<ChatMessage>, messages);
    QFETCH(QString, expected);

    ConversationStore store(m_file);
    const Conversation created = store.newChat(std::nullopt);
    if (title != created.title)
        store.rename(created.id, title);
    store.updateMessages(created.id, messages);
    QCOMPARE(store.conversations().first().title, expected);
    QCOMPARE(store.conversations().first().messages, messages);

    // Once derived, the title stays when the chat goes on.
    QList<ChatMessage> more = messages;
    more.append(ChatMessage(ChatRole::user, QStringLiteral("Something else entirely")));
    store.updateMessages(created.id, more);
    if (expected != QStringLiteral("New Chat"))
        QCOMPARE(store.conversations().first().title, expected);
    QCOMPARE(storedList(m_file), store.conversations());
}

void tst_ConversationStore::updateMessages_movesToFrontAndStamps()
{
    const Conversation a = conversation(QStringLiteral("a"), 300);
    const Conversation b = conversation(QStringLiteral("b"), 200);
    const Conversation c = conversation(QStringLiteral("c"), 100);
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{a, b, c})));
    ConversationStore store;
    ManualClock clock;
    store.setClock(clock.function());

    store.updateMessages(c.id, {ChatMessage(ChatRole::user, QStringLiteral("more"))});
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{c.id, a.id, b.id}));
    QCOMPARE(store.conversations().first().updatedAt, clock.now);
    QCOMPARE(store.conversations().first().createdAt, c.createdAt);
    QCOMPARE(store.selectedID(), std::optional<QUuid>(a.id)); // the selection does not follow
    store.updateMessages(c.id, {});                           // already in front
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{c.id, a.id, b.id}));
    QCOMPARE(ids(storedList(m_file)), ids(store.conversations()));
}

void tst_ConversationStore::unknownIdsAndBlankTitles_changeNothing()
{
    ConversationStore store;
    const Conversation created = store.newChat(std::nullopt);
    const QByteArray before = readAll(m_file);
    QFile::remove(m_file); // any save would bring it back
    QSignalSpy listSpy(&store, &ConversationStore::conversationsChanged);

    store.updateMessages(QUuid::createUuid(), {ChatMessage(ChatRole::user, QStringLiteral("x"))});
    store.rename(QUuid::createUuid(), QStringLiteral("x"));
    store.rename(created.id, QStringLiteral(" \t\n "));
    QCOMPARE(store.conversations(), QList<Conversation>{created});
    QVERIFY(!QFileInfo::exists(m_file));
    QCOMPARE(listSpy.count(), 0);
    QVERIFY(!before.isEmpty());
}

void tst_ConversationStore::rename_trimsInPlace()
{
    const Conversation a = conversation(QStringLiteral("a"), 300);
    const Conversation b = conversation(QStringLiteral("b"), 200);
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{a, b})));
    ConversationStore store;
    store.rename(b.id, QStringLiteral("\n  Word  \t"));
    QCOMPARE(store.conversations().at(1).title, QStringLiteral("Word"));
    QCOMPARE(store.conversations().at(1).updatedAt, b.updatedAt);
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{a.id, b.id}));
    QCOMPARE(storedList(m_file).at(1).title, QStringLiteral("Word"));
}

void tst_ConversationStore::delete_movesSelection()
{
    const Conversation a = conversation(QStringLiteral("a"), 300);
    const Conversation b = conversation(QStringLiteral("b"), 200);
    const Conversation c = conversation(QStringLiteral("c"), 100);
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{a, b, c})));
    ConversationStore store;
    store.setSelectedID(b.id);

    store.deleteConversation(c);
    QCOMPARE(store.selectedID(), std::optional<QUuid>(b.id));
    store.deleteConversation(b);
    QCOMPARE(store.selectedID(), std::optional<QUuid>(a.id));
    store.deleteConversation(conversation(QStringLiteral("stranger"), 1));
    QCOMPARE(ids(store.conversations()), QList<QUuid>{a.id});
    store.deleteConversation(a);
    QVERIFY(!store.selectedID());
    QCOMPARE(readAll(m_file), QByteArrayLiteral("[]"));
}

void tst_ConversationStore::merge_replacesWholeAndResorts()
{
    ConversationStore store;
    const Conversation a = conversation(QStringLiteral("a"), 100);
    const Conversation b = conversation(QStringLiteral("b"), 300);
    store.merge({a, b}); // empty store: the newest merged becomes selected
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{b.id, a.id}));
    QCOMPARE(store.selectedID(), std::optional<QUuid>(b.id));
    store.setSelectedID(a.id);

    Conversation olderB = conversation(QStringLiteral("b from elsewhere"), 50, b.id);
    olderB.providerID = QUuid::createUuid();
    const Conversation c = conversation(QStringLiteral("c"), 200);
    store.merge({olderB, c});
    QCOMPARE(ids(store.conversations()), (QList<QUuid>{c.id, a.id, b.id}));
    QCOMPARE(store.conversations().last(), olderB);
    QCOMPARE(store.selectedID(), std::optional<QUuid>(a.id));
    QCOMPARE(storedList(m_file), store.conversations());
}

void tst_ConversationStore::file_isOwnerOnlyCompactJson()
{
    ConversationStore store;
    const Conversation created = store.newChat(std::nullopt);
    store.updateMessages(created.id, {ChatMessage(ChatRole::user, QStringLiteral("a/b \"q\" \\ é"))});
    QVERIFY(isOwnerOnly(m_file));
    const QByteArray bytes = readAll(m_file);
    QVERIFY(bytes.startsWith("[{\"id\":\""));
    QVERIFY(!bytes.contains('\n'));
    QVERIFY(bytes.contains("a\\/b \\\"q\\\" \\\\ \xc3\xa9"));
}

void tst_ConversationStore::file_matchesMemoryAfterEveryOperation()
{
    const Conversation a = conversation(QStringLiteral("a"), 100);
    const Conversation b = conversation(QStringLiteral("b"), 200);
    const Conversation c = conversation(QStringLiteral("c"), 300);
    QVERIFY(writeAll(m_file, encodeJson(QList<Conversation>{a, b, c})));
    ConversationStore store;
    const auto fileMatches = [&] { return readAll(m_file) == encodeJson(store.conversations()); };

    const Conversation created = store.newChat(QUuid::createUuid());
    QVERIFY(fileMatches());
    store.updateMessages(a.id, {ChatMessage(ChatRole::user, QStringLiteral("changed"))});
    QVERIFY(fileMatches());
    store.rename(b.id, QStringLiteral("renamed"));
    QVERIFY(fileMatches());
    store.merge({conversation(QStringLiteral("c again"), 50, c.id), conversation(QStringLiteral("d"), 250)});
    QVERIFY(fileMatches());
    store.deleteConversation(created);
    QVERIFY(fileMatches());
    QList<Conversation> edited = store.conversations();
    edited.first().title = QStringLiteral("edited outside");
    std::reverse(edited.begin(), edited.end());
    store.setConversations(edited);
    store.rename(edited.first().id, QStringLiteral("saved now"));
    QVERIFY(fileMatches());
    QCOMPARE(storedList(m_file).last().title, QStringLiteral("edited outside"));
}

void tst_ConversationStore::readOnlyFolder_leavesOldFileWhole()
{
    ConversationStore store;
    const Conversation created = store.newChat(std::nullopt);
    const QByteArray before = readAll(m_file);
    const QString folder = QFileInfo(m_file).absolutePath();
    {
        ReadOnlyFolder readOnly(folder, m_profile->root());
        if (!readOnly.isEffective())
            QSKIP("cannot make a folder read-only for this user");
        store.updateMessages(created.id, {ChatMessage(ChatRole::user, QStringLiteral("kept in memory"))});
        QVERIFY(store.lastSaveError());
        store.newChat(std::nullopt);
    }
    QCOMPARE(store.conversations().size(), 2);
    QCOMPARE(store.conversations().at(1).title, QStringLiteral("kept in memory"));
    QCOMPARE(readAll(m_file), before);
    QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList{QStringLiteral("conversations.json")});

    // Once the folder is writable again, the next save carries everything.
    store.rename(created.id, QStringLiteral("back"));
    QVERIFY(!store.lastSaveError());
    QCOMPARE(storedList(m_file), store.conversations());
}

QTEST_GUILESS_MAIN(tst_ConversationStore)
#include "tst_conversationstore.moc"
