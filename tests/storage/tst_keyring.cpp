#include "model/jsoncoding.h"
#include "secretservice.h"
#include "storage/keyring.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"
#include "toolrun.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;
using StorageTest::provider;
using StorageTest::settings;

namespace {

// What the preferences file holds, as text: a key must not be anywhere in it.
QByteArray preferencesFile()
{
    return StorageTest::readAll(settings().fileName());
}

void storeInFile(const QList<Provider> &providers)
{
    QSettings s = settings();
    s.setValue(ProviderStore::providersKey, encodeJson(providers));
    s.sync();
}

// A store that keeps its keys in the test's keyring.
std::unique_ptr<ProviderStore> keyringStore()
{
    auto store = std::make_unique<ProviderStore>();
    store->useKeyring(new Keyring);
    return store;
}

// What the keyring holds for id, asked afresh.
std::optional<QString> keyringEntry(const QUuid &id)
{
    Keyring keyring;
    QSignalSpy read(&keyring, &Keyring::keyRead);
    keyring.read(id);
    if (!read.wait(10000))
        return std::nullopt;
    return read.at(0).at(2).value<std::optional<QString>>();
}

// Asks the test's Secret Service; the answer's first value.
QVariant askSecrets(const QString &interface, const QString &method, const QVariantList &arguments)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(u"org.freedesktop.secrets"_s, u"/org/freedesktop/secrets"_s, interface, method);
    call.setArguments(arguments);
    const QDBusMessage answer = QDBusConnection::sessionBus().call(call, QDBus::Block, 10000);
    return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments().value(0) : QVariant();
}

QDBusObjectPath defaultKeyring()
{
    return askSecrets(u"org.freedesktop.Secret.Service"_s, u"ReadAlias"_s, {u"default"_s}).value<QDBusObjectPath>();
}

void setDefaultKeyring(const QDBusObjectPath &keyring)
{
    askSecrets(u"org.freedesktop.Secret.Service"_s, u"SetAlias"_s, {u"default"_s, QVariant::fromValue(keyring)});
}

// How many keyrings the Secret Service holds.
qsizetype keyringCount()
{
    const QVariant collections = askSecrets(u"org.freedesktop.DBus.Properties"_s, u"Get"_s,
                                            {u"org.freedesktop.Secret.Service"_s, u"Collections"_s});
    return qdbus_cast<QList<QDBusObjectPath>>(collections.value<QDBusVariant>().variant()).size();
}

// Runs the inspection tool in this test's profile and keyring; its standard output.
QByteArray inspect(const QStringList &args)
{
    const ToolRun run = runTool(QStringLiteral(VERBOLT_INSPECT), args);
    return run.exitCode == 0 ? run.out : QByteArray();
}

} // namespace

class tst_Keyring final : public QObject
{
    Q_OBJECT

    std::unique_ptr<StorageTest::Profile> m_profile;
    StorageTest::SecretService m_secrets;
    QString m_unavailable;

private slots:
    void initTestCase()
    {
        m_profile = std::make_unique<StorageTest::Profile>();
        m_unavailable = m_secrets.start();
    }

    void init()
    {
        if (!m_unavailable.isEmpty())
            QSKIP(qPrintable(m_unavailable));
        settings().clear();
    }

    void keyInFile_movesToKeyringOnceConfirmed()
    {
        const QList<Provider> stored = {provider(u"Alpha"_s), provider(u"Beta"_s)};
        storeInFile(stored);
        {
            auto store = keyringStore();
            // The keys are at hand at once, from the file, while the keyring is asked.
            QCOMPARE(store->providers().at(0).apiKey, u"sk-Alpha"_s);
            QCOMPARE(store->keyStorage(), ProviderStore::KeyStorage::Unknown);
            QTRY_COMPARE_WITH_TIMEOUT(store->keyStorage(), ProviderStore::KeyStorage::Keyring, 10000);
            QTRY_VERIFY_WITH_TIMEOUT(!preferencesFile().contains("sk-"), 10000);
            QCOMPARE(store->providers().at(1).apiKey, u"sk-Beta"_s);
        }
        QCOMPARE(keyringEntry(stored.at(0).id), u"sk-Alpha"_s);
        QCOMPARE(keyringEntry(stored.at(1).id), u"sk-Beta"_s);
        QVERIFY(preferencesFile().contains("Alpha")); // the providers themselves stay

        // The next start finds the keys in the keyring, in the background; a provider saved before
        // its key has arrived keeps it.
        auto again = keyringStore();
        QVERIFY(again->isKeyPending(stored.at(0).id));
        Provider edited = again->providers().at(0);
        QCOMPARE(edited.apiKey, QString());
        edited.model = u"other-model"_s;
        again->update(edited);
        bool ready = false;
        again->whenKeyReady(stored.at(0).id, this, [&] {
            ready = true;
            QCOMPARE(again->providers().at(0).apiKey, u"sk-Alpha"_s);
        });
        QTRY_VERIFY_WITH_TIMEOUT(ready, 10000);
        QCOMPARE(again->providers().at(0).model, u"other-model"_s);
        QTRY_COMPARE(again->providers().at(1).apiKey, u"sk-Beta"_s);
        QVERIFY(!preferencesFile().contains("sk-"));
        QCOMPARE(keyringEntry(stored.at(0).id), u"sk-Alpha"_s);
    }

    void keyringAvailable_neverWritesKeyToFile()
    {
        storeInFile({});
        const Provider quit = provider(u"Epsilon"_s);
        {
            auto store = keyringStore();
            QTRY_COMPARE_WITH_TIMEOUT(store->keyStorage(), ProviderStore::KeyStorage::Keyring, 10000);
            store->add(quit);
        } // gone before the keyring answered, as at a quit: the key gets there all the same
        QCOMPARE(keyringEntry(quit.id), u"sk-Epsilon"_s);

        auto store = keyringStore();
        QTRY_COMPARE_WITH_TIMEOUT(store->keyStorage(), ProviderStore::KeyStorage::Keyring, 10000);

        Provider added = provider(u"Gamma"_s);
        store->add(added);
        store->waitForSaved();
        QVERIFY(preferencesFile().contains("Gamma") && !preferencesFile().contains("sk-Gamma"));
        added.apiKey = u"sk-changed"_s;
        store->update(added);
        store->waitForSaved();
        QVERIFY(!preferencesFile().contains("sk-changed"));
        const Provider imported = provider(u"Delta"_s);
        store->merge({imported});
        store->waitForSaved();
        QVERIFY(preferencesFile().contains("Delta") && !preferencesFile().contains("sk-Delta"));
        QTRY_COMPARE_WITH_TIMEOUT(keyringEntry(imported.id), u"sk-Delta"_s, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(keyringEntry(added.id), u"sk-changed"_s, 10000);
        QVERIFY(!preferencesFile().contains("sk-"));

        // Removing the provider removes its entry; clearing a key clears the entry too.
        store->remove(added);
        Provider cleared = imported;
        cleared.apiKey.clear();
        store->update(cleared);
        QTRY_COMPARE_WITH_TIMEOUT(keyringEntry(added.id), std::optional<QString>(), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(keyringEntry(imported.id), std::optional<QString>(), 10000);
    }

    // With no default keyring, storing a key would have the desktop ask the user, in a window of
    // its own in front of ours, to make one: the key stays in the owner-only file instead, and
    // no keyring is made.
    void noDefaultKeyring_keyStaysInFile()
    {
        const QDBusObjectPath login = defaultKeyring();
        QVERIFY(login.path().startsWith(u"/org/freedesktop/secrets/collection/"_s));
        const qsizetype keyrings = keyringCount();
        setDefaultKeyring(QDBusObjectPath(u"/"_s));
        const auto restore = qScopeGuard([&] { setDefaultKeyring(login); });
        QCOMPARE(defaultKeyring().path(), u"/"_s);

        storeInFile({provider(u"Zeta"_s)});
        auto store = keyringStore();
        QTRY_COMPARE_WITH_TIMEOUT(store->keyStorage(), ProviderStore::KeyStorage::SettingsFile, 10000);
        QCOMPARE(store->providers().at(0).apiKey, u"sk-Zeta"_s);
        store->add(provider(u"Eta"_s));
        store->waitForSaved();
        QVERIFY(preferencesFile().contains("sk-Zeta") && preferencesFile().contains("sk-Eta"));
        QCOMPARE(keyringCount(), keyrings);
    }

    void inspectTool_readsAndStoresKeysInKeyring()
    {
        const Provider stored = provider(u"Theta"_s);
        {
            auto store = keyringStore();
            store->add(stored);
            QTRY_COMPARE_WITH_TIMEOUT(keyringEntry(stored.id), u"sk-Theta"_s, 10000);
        }
        QVERIFY(inspect({u"store"_s}).contains("\"apiKey\":\"sk-Theta\""));

        // An archive written by the tool carries the key; imported again, the key goes back to
        // the keyring and not to the file.
        QTemporaryDir dir;
        const QString archive = dir.filePath(u"config.json"_s);
        QCOMPARE(inspect({u"archive-export"_s, u"--file"_s, archive}), QByteArray("{}\n"));
        QVERIFY(StorageTest::readAll(archive).contains("sk-Theta"));
        settings().clear();
        settings().sync();
        Keyring keyring;
        QSignalSpy removed(&keyring, &Keyring::removed);
        keyring.remove(stored.id);
        QVERIFY(removed.wait(10000));
        QCOMPARE(inspect({u"archive-import"_s, u"--file"_s, archive}), QByteArray("{}\n"));
        QCOMPARE(keyringEntry(stored.id), u"sk-Theta"_s);
        QVERIFY(preferencesFile().contains("Theta"));
        QVERIFY(!preferencesFile().contains("sk-Theta"));
    }
};

QTEST_GUILESS_MAIN(tst_Keyring)
#include "tst_keyring.moc"
