#include "model/jsoncoding.h"
#include "storage/coredumps.h"
#include "storage/keyring.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"

#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace StorageTest;

namespace {

// What the file holds once the store's saves have landed.
QString storedSelection(ProviderStore &store)
{
    store.waitForSaved();
    return settings().value(ProviderStore::selectedKey, u"none"_s).toString();
}

QList<Provider> storedProviders(ProviderStore &store)
{
    store.waitForSaved();
    return decodeJson<QList<Provider>>(settings().value(ProviderStore::providersKey).toByteArray())
        .value_or(QList<Provider>());
}

} // namespace

class tst_ProviderStore : public QObject
{
    Q_OBJECT

    Profile m_profile;

private slots:
    void initTestCase()
    {
        // A session bus nobody listens on: this process has no keyring.
        qputenv("DBUS_SESSION_BUS_ADDRESS", QFile::encodeName(u"unix:path="_s + m_profile.root() + u"/no-bus"_s));
    }

    void init() { settings().clear(); }

    void load_picksSelection_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<QString>("storedText"); // "$n" stands for the nth provider's id, "$Ln" in lower case
        QTest::addColumn<int>("expected");       // -1: nothing selected, nothing stored

        QTest::newRow("first start") << 0 << QString() << -1;
        QTest::newRow("stored second") << 3 << u"$1"_s << 1;
        QTest::newRow("lower case is accepted and rewritten") << 3 << u"$L2"_s << 2;
        QTest::newRow("stale id falls to the first") << 3 << u"8C3B0E0E-1A1A-4B4B-9C9C-0D0D0D0D0D0D"_s << 0;
        QTest::newRow("nothing stored") << 3 << QString() << 0;
    }
    void load_picksSelection()
    {
        QFETCH(int, count);
        QFETCH(QString, storedText);
        QFETCH(int, expected);

        QList<Provider> list;
        for (int i = 0; i < count; ++i) {
            list.append(provider(QString::number(i), i == 2 ? ProviderWire::anthropic : ProviderWire::openAI));
            const QString id = JsonCoding::uuidText(list.last().id);
            storedText.replace(u"$L"_s + QString::number(i), id.toLower()).replace(u'$' + QString::number(i), id);
        }
        if (count > 0)
            settings().setValue(ProviderStore::providersKey, encodeJson(list));
        if (!storedText.isEmpty())
            settings().setValue(ProviderStore::selectedKey, storedText);

        ProviderStore providers;
        QCOMPARE(providers.providers(), list);
        QVERIFY(!providers.keptAsideKey());
        QCOMPARE(providers.selected(), expected < 0 ? std::nullopt : std::optional<Provider>(list.at(expected)));
        QCOMPARE(storedSelection(providers), expected < 0 ? u"none"_s : JsonCoding::uuidText(list.at(expected).id));
    }

    void undecodableList_isKeptAside_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("garbage") << "\x01\x02not json"_ba;
        QTest::newRow("one element with an unknown wire")
            << encodeJson(QList<Provider>{provider(u"ok"_s)}).replace("\"openAI\"", "\"gemini\"");
    }
    void undecodableList_isKeptAside()
    {
        QFETCH(QByteArray, bytes);
        const auto stored = [](const QString &key) { return settings().value(key).toByteArray(); };
        settings().setValue(ProviderStore::providersKey, bytes);
        settings().setValue(ProviderStore::selectedKey, QUuid::createUuid().toString(QUuid::WithoutBraces));

        ProviderStore providers;
        QVERIFY(providers.providers().isEmpty());
        QVERIFY(!providers.selectedID());
        QCOMPARE(storedSelection(providers), u"none"_s);
        QCOMPARE(providers.keptAsideKey(), std::optional<QString>(ProviderStore::unreadableKey));
        QCOMPARE(stored(ProviderStore::providersKey), bytes); // untouched at start

        // The first save replaces the list, but the user's old bytes stay findable.
        providers.add(provider(u"new"_s));
        QCOMPARE(storedProviders(providers).size(), 1);
        QCOMPARE(stored(ProviderStore::unreadableKey), bytes);

        // The same bytes found again are already safe; other bytes never replace the first copy.
        settings().setValue(ProviderStore::providersKey, bytes);
        QCOMPARE(ProviderStore().keptAsideKey(), std::optional<QString>(ProviderStore::unreadableKey));
        settings().setValue(ProviderStore::providersKey, "other"_ba);
        const auto key = ProviderStore().keptAsideKey();
        QVERIFY(key && *key != ProviderStore::unreadableKey && key->startsWith(ProviderStore::unreadableKey));
        QCOMPARE(stored(*key), "other"_ba);
        QCOMPARE(stored(ProviderStore::unreadableKey), bytes);
    }

    void add_selectsOnlyWhenNothingIsSelected()
    {
        ProviderStore providers;
        QSignalSpy listSpy(&providers, &ProviderStore::providersChanged);
        QSignalSpy selectionSpy(&providers, &ProviderStore::selectedIDChanged);
        const Provider first = provider(u"first"_s);
        const Provider second = provider(u"second"_s);

        providers.add(first);
        providers.add(second);
        QCOMPARE(storedSelection(providers), JsonCoding::uuidText(first.id));
        QCOMPARE(storedProviders(providers), (QList<Provider>{first, second}));
        QCOMPARE(listSpy.count(), 2);
        QCOMPARE(selectionSpy.count(), 1);
        QVERIFY(providers.settingsFileName().startsWith(m_profile.configHome()));
        QVERIFY(isOwnerOnly(providers.settingsFileName()));

        // A selection naming no provider is stored as it is, and selects nothing.
        const QUuid stranger = QUuid::createUuid();
        providers.setSelectedID(stranger);
        QVERIFY(!providers.selected());
        QCOMPARE(storedSelection(providers), JsonCoding::uuidText(stranger));
    }

    void updateAndRemove_actOnEveryEqualIdAndMoveSelection()
    {
        ProviderStore providers;
        const Provider a = provider(u"a"_s);
        const Provider b = provider(u"b"_s);
        const Provider c = provider(u"c"_s);
        Provider twin = a;
        twin.name = u"twin"_s;
        providers.setProviders({a, b, twin, c});
        providers.setSelectedID(a.id);
        QCOMPARE(providers.selected(), std::optional<Provider>(a)); // the first of equal ids

        Provider edited = a;
        edited.apiKey = u"sk-edited"_s;
        providers.update(edited);
        QSignalSpy listSpy(&providers, &ProviderStore::providersChanged);
        providers.update(provider(u"unknown"_s));
        QCOMPARE(listSpy.count(), 0);
        QCOMPARE(providers.providers(), (QList<Provider>{edited, b, twin, c}));

        providers.setSelectedID(b.id);
        providers.remove(c);
        providers.remove(provider(u"stranger"_s));
        QCOMPARE(providers.selectedID(), std::optional(b.id));
        providers.remove(b);
        QCOMPARE(storedSelection(providers), JsonCoding::uuidText(a.id));
        providers.remove(a); // and its twin
        QVERIFY(!providers.selectedID());
        QCOMPARE(storedSelection(providers), u"none"_s);
        QCOMPARE(settings().value(ProviderStore::providersKey).toByteArray(), "[]"_ba);
    }

    // A save that cannot be written (here: no file can be opened) leaves the old file whole and
    // memory as the user left it, and the user hears of it once, then of the next save that works.
    void failedSave_keepsOldFileAndTellsTheUser()
    {
        ProviderStore providers;
        providers.add(provider(u"a"_s));
        providers.waitForSaved();
        const QString file = providers.settingsFileName();
        const QByteArray before = readAll(file);
        QVERIFY(!before.isEmpty());
        QSignalSpy errors(&providers, &ProviderStore::lastSaveErrorChanged);
        QList<Provider> many;
        for (int i = 0; i < 200; ++i)
            many.append(provider(QString::number(i)));
        {
            // Unlike a read-only folder, this stops the owner of the folder too.
            rlimit limit = {};
            QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
            const int lowestFree = ::dup(0);
            QVERIFY(lowestFree > 0);
            ::close(lowestFree);
            const rlimit none = {rlim_t(lowestFree), limit.rlim_max};
            QCOMPARE(::setrlimit(RLIMIT_NOFILE, &none), 0);
            providers.merge(many);
            providers.waitForSaved();
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        QCOMPARE(readAll(file), before);
        QCOMPARE(providers.providers().size(), 201);
        QCOMPARE(errors.size(), 1);
        QVERIFY(providers.lastSaveError() && providers.lastSaveError()->contains(file));

        providers.add(provider(u"b"_s));
        QCOMPARE(storedProviders(providers).size(), 202);
        QCOMPARE(errors.size(), 2);
        QCOMPARE(providers.lastSaveError(), std::nullopt);
    }

    // Changes made in a quick run, or merged at once, are folded into fewer saves; the file ends
    // with the last of them even when the store goes right after (a quit).
    void quickChanges_fileEndsWithTheLastOnes()
    {
        QList<Provider> list;
        {
            ProviderStore providers;
            for (int i = 0; i < 30; ++i) {
                list.append(provider(QString::number(i)));
                providers.add(list.last());
                providers.setSelectedID(list.last().id);
            }
        }
        ProviderStore reopened;
        QCOMPARE(reopened.providers(), list);
        QCOMPARE(reopened.selectedID(), std::optional(list.last().id));

        // A merge of many is one change; one already there is replaced in place.
        QList<Provider> incoming;
        for (int i = 0; i < 3000; ++i)
            incoming.append(
                provider(QString::number(i), ProviderWire::openAI, i == 0 ? list.at(10).id : QUuid::createUuid()));
        QSignalSpy changed(&reopened, &ProviderStore::providersChanged);
        reopened.merge(incoming);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(reopened.providers().at(10), incoming.at(0));
        QCOMPARE(storedProviders(reopened).size(), 3029);
        QCOMPARE(storedProviders(reopened).at(30).id, incoming.at(1).id);
    }

    void noKeyring_keysStayInFile()
    {
        const Provider kept = provider(u"A"_s);
        settings().setValue(ProviderStore::providersKey, encodeJson(QList<Provider>{kept}));
        ProviderStore store;
        QSignalSpy storage(&store, &ProviderStore::keyStorageChanged);
        store.useKeyring(new Keyring);
        bool ready = false;
        store.whenKeyReady(kept.id, this, [&] { ready = true; });
        QTRY_COMPARE_WITH_TIMEOUT(store.keyStorage(), ProviderStore::KeyStorage::SettingsFile, 10000);
        QVERIFY(ready); // a send waiting for the key goes on, with the key the file had
        QVERIFY(!storage.isEmpty());
        QCOMPARE(store.providers().at(0).apiKey, u"sk-A"_s);

        const Provider added = provider(u"B"_s);
        store.add(added);
        QCOMPARE(storedProviders(store).at(0).apiKey, u"sk-A"_s);
        QCOMPARE(storedProviders(store).at(1).apiKey, u"sk-B"_s);
    }

    // Last: the process cannot be dumped afterwards. The keys it holds never reach a core file.
    void disableCoreDumps_leavesNothingToDump()
    {
        QVERIFY(disableCoreDumps());
        QCOMPARE(::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0);
        rlimit core = {};
        QCOMPARE(::getrlimit(RLIMIT_CORE, &core), 0);
        QCOMPARE(core.rlim_cur, rlim_t(0));
    }
};

QTEST_GUILESS_MAIN(tst_ProviderStore)
#include "tst_providerstore.moc"
