#include "storage/configarchive.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"

#include <QTest>

#include <sys/stat.h>

using namespace StorageTest;

namespace {

// Everything a user could see of both stores.
struct Snapshot
{
    QList<Provider> providers;
    std::optional<QUuid> selectedProvider;
    QList<Conversation> conversations;
    std::optional<QUuid> selectedConversation;

    friend bool operator==(const Snapshot &, const Snapshot &) = default;
};

struct Stores
{
    ProviderStore providers;
    ConversationStore conversations;

    Snapshot snapshot() const
    {
        return {providers.providers(), providers.selectedID(), conversations.conversations(),
                conversations.selectedID()};
    }
    std::optional<QString> exportTo(FileDialogs &dialogs)
    {
        return ConfigArchive::exportConfig(providers, conversations, dialogs);
    }
    std::optional<QString> importFrom(FileDialogs &dialogs)
    {
        return ConfigArchive::importConfig(providers, conversations, dialogs);
    }
};

} // namespace

class tst_ConfigArchive : public QObject
{
    Q_OBJECT

    Profile m_profile;
    const QString m_folder = m_profile.root() + u"/out"_s;
    const QString m_archive = m_folder + u"/verbolt-config.json"_s;

    void wipeProfile()
    {
        settings().clear();
        QFile::remove(m_profile.conversationsFile());
    }

private slots:
    void init()
    {
        wipeProfile();
        QDir(m_folder).removeRecursively();
        QDir().mkpath(m_folder);
    }

    void cancel_changesNothing()
    {
        Stores stores;
        stores.providers.add(provider(u"mine"_s));
        const Snapshot before = stores.snapshot();
        ScriptedDialogs dialogs; // answers nothing, as when the user cancels
        QCOMPARE(stores.exportTo(dialogs), std::nullopt);
        QCOMPARE(stores.importFrom(dialogs), std::nullopt);
        QCOMPARE(dialogs.saves.size() + dialogs.opens.size(), 2);
        QCOMPARE(stores.snapshot(), before);
        QVERIFY(QDir(m_folder).isEmpty());
    }

    void exportThenImport_intoFreshProfile_restoresEverything()
    {
        Snapshot before;
        {
            Stores stores;
            stores.providers.add(provider(u"first"_s));
            Provider second = provider(u"second"_s, ProviderWire::anthropic);
            second.proxy = u"socks5://127.0.0.1:1080"_s; // a provider's own proxy travels with it
            stores.providers.add(second);
            stores.conversations.merge(
                {conversation(u"old"_s, 100), conversation(u"new"_s, 900), conversation(u"mid"_s, 500)});
            before = stores.snapshot();
            ScriptedDialogs dialogs(m_archive);
            QCOMPARE(stores.exportTo(dialogs), std::nullopt);
            const SaveDialogRequest &asked = dialogs.saves.first();
            QCOMPARE(asked.title, u"Export Config"_s);
            QCOMPARE(asked.message, u"Includes API keys in plain text \u2014 keep this file safe."_s);
            QCOMPARE(asked.suggestedName, u"verbolt-config.json"_s);
            QVERIFY(asked.nameFilters.first().contains(u"*.json"_s));
        }
        // Pretty and sorted, for the owner alone; the writer sorts and escapes at every depth.
        const QByteArray exported = readAll(m_archive);
        QVERIFY(exported.startsWith("{\n  \"conversations\" : [\n") && exported.endsWith("\n  \"version\" : 1\n}"));
        QVERIFY(isOwnerOnly(m_archive));
        wipeProfile();

        Stores stores;
        ScriptedDialogs dialogs(m_archive);
        QCOMPARE(stores.importFrom(dialogs), std::nullopt);
        QCOMPARE(dialogs.opens.first().title, u"Import Config"_s);
        QCOMPARE(stores.snapshot(), before);
        stores.conversations.waitForSaved();
        stores.providers.waitForSaved();
        Stores reloaded; // on disk, not only in memory
        QCOMPARE(reloaded.snapshot(), before);
        // Records as loaded from the history are exported in the same pretty form.
        QCOMPARE(reloaded.exportTo(dialogs), std::nullopt);
        QCOMPARE(readAll(m_archive), exported);
    }

    void import_mergesByIdKeepsSelectionAndResortsWhateverTheVersion()
    {
        Stores stores;
        const Provider local = provider(u"local"_s);
        const Provider other = provider(u"other"_s);
        stores.providers.setProviders({local, other});
        stores.providers.setSelectedID(other.id);
        const Conversation older = conversation(u"older"_s, 100);
        const Conversation newer = conversation(u"newer"_s, 300);
        stores.conversations.merge({older, newer});
        stores.conversations.setSelectedID(older.id);

        Provider replaced = provider(u"renamed"_s, ProviderWire::anthropic, local.id);
        replaced.cachedModels = {u"m1"_s};
        const Provider added = provider(u"added"_s);
        const Conversation between = conversation(u"between"_s, 200);
        // Replaced whole even though the local copy is newer, then sorted to its place.
        Conversation olderNewer = conversation(u"newer from elsewhere"_s, 50, newer.id);
        olderNewer.providerID = QUuid::createUuid();
        // The version is read, never checked.
        QVERIFY(writeAll(m_archive, ConfigArchive::encode({7, {added, replaced}, {olderNewer, between}})));

        ScriptedDialogs dialogs(m_archive);
        QCOMPARE(stores.importFrom(dialogs), std::nullopt);
        const Snapshot expected{{replaced, other, added}, other.id, {between, older, olderNewer}, older.id};
        QCOMPARE(stores.snapshot(), expected);
    }

    void badArchive_importsNothing_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason"); // a word the failure text must hold
        QTest::addColumn<QString>("path");   // read instead of an archive with those bytes

        const QByteArray good =
            ConfigArchive::encode({1, {provider(u"fine"_s), provider(u"odd"_s)}, {conversation(u"c"_s, 5)}});
        QByteArray unknownWire = good;
        unknownWire.replace(unknownWire.lastIndexOf("\"openAI\""), 8, "\"gemini\"");
        QTest::newRow("a provider of unknown wire") << unknownWire << u"wire"_s << QString();
        QTest::newRow("no version") << QByteArray(good).replace(",\n  \"version\" : 1", "") << u"version"_s
                                    << QString();
        QTest::newRow("a date that is text")
            << QByteArray(good).replace("\"updatedAt\" : 5", "\"updatedAt\" : \"x\"") << u"updatedAt"_s << QString();
        QTest::newRow("no providers") << "{\"version\":1,\"conversations\":[]}"_ba << u"providers"_s << QString();
        QTest::newRow("not JSON") << "version = 1"_ba << QString() << QString();
        QTest::newRow("a list") << "[]"_ba << QString() << QString();
        QTest::newRow("missing file") << QByteArray() << QString() << QString();
        // Neither may hang or fill memory.
        QTest::newRow("an endless device") << QByteArray() << u"regular file"_s << u"/dev/zero"_s;
        QTest::newRow("a pipe nobody writes to") << QByteArray() << u"regular file"_s << m_folder + u"/pipe.json"_s;
    }
    void badArchive_importsNothing()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        QFETCH(QString, path);
        if (path.endsWith(u"pipe.json"_s))
            QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);

        Stores stores;
        stores.providers.add(provider(u"mine"_s));
        stores.conversations.newChat(std::nullopt);
        const Snapshot before = stores.snapshot();
        if (!bytes.isEmpty())
            QVERIFY(writeAll(m_archive, bytes));

        ScriptedDialogs dialogs(path.isEmpty() ? m_archive : path);
        const auto failure = stores.importFrom(dialogs);
        const QString prefix = u"Import failed: "_s;
        QVERIFY2(failure && failure->startsWith(prefix) && failure->size() > prefix.size() && failure->contains(reason),
                 qPrintable(failure.value_or(QString())));
        QCOMPARE(stores.snapshot(), before);
    }

    // Neither may claim success: a history that cannot be saved (its folder cannot be made, even by
    // root) on import, and an archive that cannot be written on export. The providers are saved in
    // the background, and their store tells of its own failures; that a failed write keeps the old
    // file whole is the atomic writer's, checked with the transcript export.
    void unwritableTarget_fails()
    {
        ProviderStore providers;
        ConversationStore conversations(u"/proc/verbolt-test/conversations.json"_s);
        QVERIFY(writeAll(m_archive, ConfigArchive::encode({1, {}, {conversation(u"c"_s, 5)}})));
        ScriptedDialogs dialogs(m_archive);
        const auto imported = ConfigArchive::importConfig(providers, conversations, dialogs);
        QVERIFY2(imported && imported->startsWith(u"Import failed: "_s) && imported->size() > 15,
                 qPrintable(imported.value_or(u"the import claimed success"_s)));

        dialogs.answer = m_folder + u"/no/such/folder.json"_s;
        const auto exported = ConfigArchive::exportConfig(providers, conversations, dialogs);
        QVERIFY2(exported && exported->startsWith(u"Export failed: "_s), qPrintable(exported.value_or(QString())));
    }
};

QTEST_GUILESS_MAIN(tst_ConfigArchive)
#include "tst_configarchive.moc"
