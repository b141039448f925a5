#include "storage/configarchive.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"

#include <QSettings>
#include <QTest>

using namespace StorageTest;

namespace {

// Everything a user could see of both stores.
struct Snapshot
{
    QList<Provider> providers;
    std::optional<QUuid> selectedProvider;
    QList<Conversation> conversations;
    std::optional<QUuid> selectedConversation;

    static Snapshot of(const ProviderStore &p, const ConversationStore &c)
    {
        return {p.providers(), p.selectedID(), c.conversations(), c.selectedID()};
    }
    friend bool operator==(const Snapshot &, const Snapshot &) = default;
};

} // namespace

class tst_ConfigArchive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void exportEmpty_writesTwoEmptyListsAndVersion();
    void export_isPrettySortedOwnerOnly();
    void exportThenImport_intoFreshProfile_restoresEverything();
    void exportThenImport_intoSameProfile_changesNothing();
    void import_mergesByIdAndResortsWhateverTheVersion();
    void badArchive_importsNothing_data();
    void badArchive_importsNothing();
    void cancel_changesNothing();
    void exportIntoReadOnlyFolder_failsAndKeepsOldFile();

private:
    void wipeProfile();

    std::unique_ptr<Profile> m_profile;
    QString m_archive;
};

void tst_ConfigArchive::initTestCase()
{
    m_profile = std::make_unique<Profile>();
    QVERIFY(m_profile->isValid());
    m_archive = m_profile->root() + QStringLiteral("/out/verbolt-config.json");
}

void tst_ConfigArchive::init()
{
    wipeProfile();
    QDir(QFileInfo(m_archive).absolutePath()).removeRecursively();
    QDir().mkpath(QFileInfo(m_archive).absolutePath());
}

void tst_ConfigArchive::wipeProfile()
{
    QSettings settings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
    settings.clear();
    settings.sync();
    QFile::remove(m_profile->conversationsFile());
}

void tst_ConfigArchive::exportEmpty_writesTwoEmptyListsAndVersion()
{
    ProviderStore providers;
    ConversationStore conversations;
    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    QCOMPARE(ConfigArchive::exportConfig(providers, conversations, dialogs), std::nullopt);

    QCOMPARE(readAll(m_archive),
             QByteArrayLiteral("{\n  \"conversations\" : [],\n  \"providers\" : [],\n  \"version\" : 1\n}"));
    QCOMPARE(dialogs.saves.size(), 1);
    const SaveDialogRequest &asked = dialogs.saves.first();
    QCOMPARE(asked.title, QStringLiteral("Export Config"));
    QCOMPARE(asked.message, QStringLiteral("Includes API keys in plain text \u2014 keep this file safe."));
    QCOMPARE(asked.suggestedName, QStringLiteral("verbolt-config.json"));
    QVERIFY(asked.nameFilters.first().contains(QStringLiteral("*.json")));
}

void tst_ConfigArchive::export_isPrettySortedOwnerOnly()
{
    ProviderStore providers;
    ConversationStore conversations;
    providers.add(provider(QStringLiteral("a")));
    conversations.merge({conversation(QStringLiteral("c"), 10)});
    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    QCOMPARE(ConfigArchive::exportConfig(providers, conversations, dialogs), std::nullopt);

    QVERIFY(isOwnerOnly(m_archive));
    const QByteArray bytes = readAll(m_archive);
    QVERIFY(bytes.contains("\"baseURL\" : \"https:\\/\\/api.example.com\\/v1\""));
    QVERIFY(bytes.contains("\"apiKey\" : \"sk-a\""));
    // Keys sorted at every depth: a provider, a message and its usage.
    const auto order = [&](std::initializer_list<const char *> keys) {
        qsizetype last = -1;
        for (const char *key : keys) {
            const QByteArray needle = QByteArray("\"") + key + "\" :";
            const qsizetype at = bytes.indexOf(needle, last + 1);
            if (at <= last)
                return false;
            last = at;
        }
        return true;
    };
    QVERIFY(order({"apiKey", "baseURL", "cachedModels", "id", "model", "name", "wire"}));
    QVERIFY(order({"completionTokens", "promptTokens", "totalTokens"}));
    QCOMPARE(decodeJson<ConfigArchive::Payload>(bytes)->providers, providers.providers());
}

void tst_ConfigArchive::exportThenImport_intoFreshProfile_restoresEverything()
{
    Snapshot before;
    {
        ProviderStore providers;
        ConversationStore conversations;
        providers.add(provider(QStringLiteral("first")));
        providers.add(provider(QStringLiteral("second"), ProviderWire::anthropic));
        conversations.merge({conversation(QStringLiteral("old"), 100), conversation(QStringLiteral("new"), 900),
                             conversation(QStringLiteral("mid"), 500)});
        before = Snapshot::of(providers, conversations);
        ScriptedDialogs dialogs;
        dialogs.answer = m_archive;
        QCOMPARE(ConfigArchive::exportConfig(providers, conversations, dialogs), std::nullopt);
    }
    wipeProfile();

    ProviderStore providers;
    ConversationStore conversations;
    QVERIFY(providers.providers().isEmpty());
    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    QCOMPARE(ConfigArchive::importConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(Snapshot::of(providers, conversations), before);
    QCOMPARE(dialogs.opens.first().title, QStringLiteral("Import Config"));

    // And it is on disk, not only in memory.
    ProviderStore reloadedProviders;
    ConversationStore reloadedConversations;
    QCOMPARE(Snapshot::of(reloadedProviders, reloadedConversations), before);
}

void tst_ConfigArchive::exportThenImport_intoSameProfile_changesNothing()
{
    ProviderStore providers;
    ConversationStore conversations;
    providers.setProviders({provider(QStringLiteral("a")), provider(QStringLiteral("b"))});
    providers.setSelectedID(providers.providers().last().id);
    conversations.merge({conversation(QStringLiteral("x"), 100), conversation(QStringLiteral("y"), 200)});
    conversations.setSelectedID(conversations.conversations().last().id);
    const Snapshot before = Snapshot::of(providers, conversations);

    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    QCOMPARE(ConfigArchive::exportConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(ConfigArchive::importConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(Snapshot::of(providers, conversations), before);
}

void tst_ConfigArchive::import_mergesByIdAndResortsWhateverTheVersion()
{
    ProviderStore providers;
    ConversationStore conversations;
    const Provider local = provider(QStringLiteral("local"));
    providers.add(local);
    const Conversation older = conversation(QStringLiteral("older"), 100);
    const Conversation newer = conversation(QStringLiteral("newer"), 300);
    conversations.merge({older, newer});

    ConfigArchive::Payload payload;
    payload.version = 7; // read, never checked
    Provider replaced = provider(QStringLiteral("renamed"), ProviderWire::anthropic, local.id);
    replaced.baseURL = QStringLiteral("https://elsewhere.example/api");
    replaced.cachedModels = {QStringLiteral("m1")};
    replaced.apiKey = QStringLiteral("sk-imported");
    const Provider added = provider(QStringLiteral("added"));
    payload.providers = {added, replaced};
    const Conversation between = conversation(QStringLiteral("between"), 200);
    payload.conversations = {between};
    QVERIFY(writeAll(m_archive, ConfigArchive::encode(payload)));

    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    QCOMPARE(ConfigArchive::importConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(providers.providers(), (QList<Provider>{replaced, added}));
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(local.id));
    QCOMPARE(conversations.conversations(), (QList<Conversation>{newer, between, older}));
    QCOMPARE(conversations.selectedID(), std::optional<QUuid>(newer.id));
}

void tst_ConfigArchive::badArchive_importsNothing_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("reason"); // a word the failure text must hold

    ConfigArchive::Payload payload;
    payload.providers = {provider(QStringLiteral("fine")), provider(QStringLiteral("odd"))};
    payload.conversations = {conversation(QStringLiteral("c"), 5)};
    const QByteArray good = ConfigArchive::encode(payload);

    QByteArray unknownWire = good;
    unknownWire.replace(unknownWire.lastIndexOf("\"openAI\""), 8, "\"gemini\"");
    QTest::newRow("a provider of unknown wire") << unknownWire << QStringLiteral("wire");
    QByteArray noVersion = good;
    noVersion.replace(",\n  \"version\" : 1", "");
    QTest::newRow("no version") << noVersion << QStringLiteral("version");
    QByteArray textDate = good;
    textDate.replace("\"updatedAt\" : 5", "\"updatedAt\" : \"yesterday\"");
    QTest::newRow("a date that is text") << textDate << QStringLiteral("updatedAt");
    QTest::newRow("no providers") << QByteArrayLiteral("{\"version\":1,\"conversations\":[]}")
                                  << QStringLiteral("providers");
    QTest::newRow("not JSON") << QByteArrayLiteral("version = 1") << QString();
    QTest::newRow("a list") << QByteArrayLiteral("[]") << QString();
    QTest::newRow("missing file") << QByteArray() << QString();
}

void tst_ConfigArchive::badArchive_importsNothing()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, reason);

    ProviderStore providers;
    ConversationStore conversations;
    providers.add(provider(QStringLiteral("mine")));
    conversations.newChat(std::nullopt);
    const Snapshot before = Snapshot::of(providers, conversations);
    const QByteArray fileBefore = readAll(conversations.fileURL());
    const QByteArray settingsBefore = readAll(providers.settingsFileName());
    if (!bytes.isEmpty())
        QVERIFY(writeAll(m_archive, bytes));

    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    const auto failure = ConfigArchive::importConfig(providers, conversations, dialogs);
    QVERIFY(failure);
    QVERIFY2(failure->startsWith(QStringLiteral("Import failed: ")), qPrintable(*failure));
    QVERIFY(failure->size() > QStringLiteral("Import failed: ").size());
    QVERIFY2(failure->contains(reason), qPrintable(*failure));
    QCOMPARE(Snapshot::of(providers, conversations), before);
    QCOMPARE(readAll(conversations.fileURL()), fileBefore);
    QCOMPARE(readAll(providers.settingsFileName()), settingsBefore);
}

void tst_ConfigArchive::cancel_changesNothing()
{
    ProviderStore providers;
    ConversationStore conversations;
    providers.add(provider(QStringLiteral("mine")));
    const Snapshot before = Snapshot::of(providers, conversations);
    ScriptedDialogs dialogs; // answers nothing: the user cancelled
    QCOMPARE(ConfigArchive::exportConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(ConfigArchive::importConfig(providers, conversations, dialogs), std::nullopt);
    QCOMPARE(dialogs.saves.size(), 1);
    QCOMPARE(dialogs.opens.size(), 1);
    QCOMPARE(Snapshot::of(providers, conversations), before);
    QVERIFY(QDir(QFileInfo(m_archive).absolutePath()).isEmpty());
}

void tst_ConfigArchive::exportIntoReadOnlyFolder_failsAndKeepsOldFile()
{
    QVERIFY(writeAll(m_archive, QByteArrayLiteral("the previous backup")));
    ProviderStore providers;
    ConversationStore conversations;
    providers.add(provider(QStringLiteral("mine")));
    ScriptedDialogs dialogs;
    dialogs.answer = m_archive;
    std::optional<QString> failure;
    {
        ReadOnlyFolder readOnly(QFileInfo(m_archive).absolutePath(), m_profile->root());
        if (!readOnly.isEffective())
            QSKIP("cannot make a folder read-only for this user");
        failure = ConfigArchive::exportConfig(providers, conversations, dialogs);
    }
    QVERIFY(failure);
    QVERIFY2(failure->startsWith(QStringLiteral("Export failed: ")), qPrintable(*failure));
    QCOMPARE(readAll(m_archive), QByteArrayLiteral("the previous backup"));
    QCOMPARE(QDir(QFileInfo(m_archive).absolutePath()).entryList(QDir::Files),
             QStringList{QFileInfo(m_archive).fileName()});
}

QTEST_GUILESS_MAIN(tst_ConfigArchive)
#include "tst_configarchive.moc"
