#include "model/jsoncoding.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"

#include <QSettings>
#include <QSignalSpy>
#include <QTest>

using namespace StorageTest;

namespace {

QSettings settings()
{
    return QSettings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
}

void store(const QList<Provider> &providers, const std::optional<QString> &selected)
{
    QSettings s(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
    s.setValue(ProviderStore::providersKey, encodeJson(providers));
    if (selected)
        s.setValue(ProviderStore::selectedKey, *selected);
    s.sync();
}

QVariant storedSelection()
{
    return settings().value(ProviderStore::selectedKey);
}

QList<Provider> storedProviders()
{
    return decodeJson<QList<Provider>>(settings().value(ProviderStore::providersKey).toByteArray())
        .value_or(QList<Provider>{});
}

} // namespace

class tst_ProviderStore : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void firstStart_storesNothing();
    void load_picksSelection_data();
    void load_picksSelection();
    void undecodableList_isKeptAside_data();
    void undecodableList_isKeptAside();
    void undecodableList_secondFindDoesNotOverwriteFirst();
    void add_selectsOnlyWhenNothingIsSelected();
    void duplicateIds_firstWinsAndRemoveTakesAll();
    void remove_movesSelection();
    void merge_replacesInPlaceAndAppends();
    void readOnlyFolder_keepsMemoryAndOldFile();

private:
    std::unique_ptr<Profile> m_profile;
};

void tst_ProviderStore::initTestCase()
{
    m_profile = std::make_unique<Profile>();
    QVERIFY(m_profile->isValid());
}

void tst_ProviderStore::init()
{
    QSettings s = settings();
    s.clear();
    s.sync();
}

void tst_ProviderStore::firstStart_storesNothing()
{
    ProviderStore providers;
    QVERIFY(providers.providers().isEmpty());
    QVERIFY(!providers.selectedID());
    QVERIFY(!providers.selected());
    QVERIFY(!storedSelection().isValid());
    QVERIFY(!providers.keptAsideKey());
}

void tst_ProviderStore::load_picksSelection_data()
{
    QTest::addColumn<QString>("storedText"); // "$0".."$2" stand for the providers' ids
    QTest::addColumn<bool>("lowerCase");
    QTest::addColumn<int>("expectedIndex");

    QTest::newRow("stored second") << QStringLiteral("$1") << false << 1;
    QTest::newRow("lower case is accepted and rewritten") << QStringLiteral("$2") << true << 2;
    QTest::newRow("stale id falls to the first")
        << QStringLiteral("8C3B0E0E-1A1A-4B4B-9C9C-0D0D0D0D0D0D") << false << 0;
    QTest::newRow("garbage falls to the first") << QStringLiteral("not-a-uuid") << false << 0;
    QTest::newRow("nothing stored") << QString() << false << 0;
}

void tst_ProviderStore::load_picksSelection()
{
    QFETCH(QString, storedText);
    QFETCH(bool, lowerCase);
    QFETCH(int, expectedIndex);

    const QList<Provider> list = {provider(QStringLiteral("a")), provider(QStringLiteral("b")),
                                  provider(QStringLiteral("c"), ProviderWire::anthropic)};
    for (int i = 0; i < list.size(); ++i)
        storedText.replace(u'$' + QString::number(i), JsonCoding::uuidText(list.at(i).id));
    if (lowerCase)
        storedText = storedText.toLower();
    store(list, storedText.isEmpty() ? std::nullopt : std::optional<QString>(storedText));

    ProviderStore providers;
    QCOMPARE(providers.providers(), list);
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(list.at(expectedIndex).id));
    QCOMPARE(providers.selected(), std::optional<Provider>(list.at(expectedIndex)));
    QCOMPARE(storedSelection().toString(), JsonCoding::uuidText(list.at(expectedIndex).id));
}

void tst_ProviderStore::undecodableList_isKeptAside_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("garbage") << QByteArrayLiteral("\x01\x02not json");
    QTest::newRow("an object, not a list") << QByteArrayLiteral("{\"providers\":[]}");
    QTest::newRow("an older shape") << QByteArrayLiteral("[{\"name\":\"Groq\",\"key\":\"sk-1\"}]");
    const QByteArray good = encodeJson(QList<Provider>{provider(QStringLiteral("ok"))});
    QByteArray badWire = good;
    badWire.replace("\"openAI\"", "\"gemini\"");
    QTest::newRow("one element with an unknown wire") << badWire;
}

void tst_ProviderStore::undecodableList_isKeptAside()
{
    QFETCH(QByteArray, bytes);
    {
        QSettings s = settings();
        s.setValue(ProviderStore::providersKey, bytes);
        s.setValue(ProviderStore::selectedKey, QUuid::createUuid().toString(QUuid::WithoutBraces));
    }

    ProviderStore providers;
    QVERIFY(providers.providers().isEmpty());
    QVERIFY(!providers.selectedID());
    QVERIFY(!storedSelection().isValid());
    QCOMPARE(providers.keptAsideKey(), std::optional<QString>(ProviderStore::unreadableKey));
    QCOMPARE(settings().value(ProviderStore::providersKey).toByteArray(), bytes);
    QCOMPARE(settings().value(ProviderStore::unreadableKey).toByteArray(), bytes);

    // The first save replaces the list, but the user's old bytes stay findable.
    providers.add(provider(QStringLiteral("new")));
    QCOMPARE(storedProviders().size(), 1);
    QCOMPARE(settings().value(ProviderStore::unreadableKey).toByteArray(), bytes);
}

void tst_ProviderStore::undecodableList_secondFindDoesNotOverwriteFirst()
{
    settings().setValue(ProviderStore::providersKey, QByteArrayLiteral("first"));
    {
        ProviderStore providers;
        QCOMPARE(providers.keptAsideKey(), std::optional<QString>(ProviderStore::unreadableKey));
    }
    // The same bytes found again are already safe: no second copy.
    {
        ProviderStore providers;
        QCOMPARE(providers.keptAsideKey(), std::optional<QString>(ProviderStore::unreadableKey));
    }
    settings().setValue(ProviderStore::providersKey, QByteArrayLiteral("second"));
    ProviderStore providers;
    const auto key = providers.keptAsideKey();
    QVERIFY(key);
    QVERIFY(*key != ProviderStore::unreadableKey);
    QVERIFY(key->startsWith(ProviderStore::unreadableKey));
    QCOMPARE(settings().value(*key).toByteArray(), QByteArrayLiteral("second"));
    QCOMPARE(settings().value(ProviderStore::unreadableKey).toByteArray(), QByteArrayLiteral("first"));
}

void tst_ProviderStore::add_selectsOnlyWhenNothingIsSelected()
{
    ProviderStore providers;
    QSignalSpy listSpy(&providers, &ProviderStore::providersChanged);
    QSignalSpy selectionSpy(&providers, &ProviderStore::selectedIDChanged);
    const Provider first = provider(QStringLiteral("first"));
    const Provider second = provider(QStringLiteral("second"));

    providers.add(first);
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(first.id));
    QCOMPARE(storedSelection().toString(), JsonCoding::uuidText(first.id));
    providers.add(second);
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(first.id));
    QCOMPARE(storedProviders(), (QList<Provider>{first, second}));
    QCOMPARE(listSpy.count(), 2);
    QCOMPARE(selectionSpy.count(), 1);
    QVERIFY(providers.settingsFileName().startsWith(m_profile->configHome()));
    QVERIFY(isOwnerOnly(providers.settingsFileName()));

    // A selection naming no provider is stored as it is, and selects nothing.
    const QUuid stranger = QUuid::createUuid();
    providers.setSelectedID(stranger);
    QVERIFY(!providers.selected());
    QCOMPARE(storedSelection().toString(), JsonCoding::uuidText(stranger));
}

void tst_ProviderStore::duplicateIds_firstWinsAndRemoveTakesAll()
{
    ProviderStore providers;
    const Provider original = provider(QStringLiteral("one"));
    Provider twin = original;
    twin.name = QStringLiteral("twin");
    const Provider other = provider(QStringLiteral("other"));
    providers.add(original);
    providers.add(other);
    providers.add(twin);
    QCOMPARE(providers.providers().size(), 3);
    QCOMPARE(providers.selected()->name, QStringLiteral("one"));

    Provider edited = original;
    edited.model = QStringLiteral("edited-model");
    edited.apiKey = QStringLiteral("sk-edited");
    providers.update(edited);
    QCOMPARE(providers.providers().at(0), edited);
    QCOMPARE(providers.providers().at(2), twin);

    QSignalSpy listSpy(&providers, &ProviderStore::providersChanged);
    providers.update(provider(QStringLiteral("unknown")));
    QCOMPARE(listSpy.count(), 0);

    providers.remove(original);
    QCOMPARE(providers.providers(), QList<Provider>{other});
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(other.id));
    QCOMPARE(storedProviders(), QList<Provider>{other});
}

void tst_ProviderStore::remove_movesSelection()
{
    ProviderStore providers;
    const Provider a = provider(QStringLiteral("a"));
    const Provider b = provider(QStringLiteral("b"));
    const Provider c = provider(QStringLiteral("c"));
    providers.setProviders({a, b, c});
    providers.setSelectedID(b.id);

    providers.remove(c); // not selected: selection kept
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(b.id));
    providers.remove(provider(QStringLiteral("stranger"))); // unknown: list kept, still saved
    QCOMPARE(providers.providers(), (QList<Provider>{a, b}));
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(b.id));

    providers.remove(b);
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(a.id));
    QCOMPARE(storedSelection().toString(), JsonCoding::uuidText(a.id));

    providers.remove(a);
    QVERIFY(providers.providers().isEmpty());
    QVERIFY(!providers.selectedID());
    QVERIFY(!storedSelection().isValid());
    QCOMPARE(settings().value(ProviderStore::providersKey).toByteArray(), QByteArrayLiteral("[]"));
}

void tst_ProviderStore::merge_replacesInPlaceAndAppends()
{
    ProviderStore providers;
    const Provider a = provider(QStringLiteral("a"));
    const Provider b = provider(QStringLiteral("b"));
    providers.merge({a, b}); // empty store: the first imported becomes selected
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(a.id));
    providers.setSelectedID(b.id);

    Provider newerA = provider(QStringLiteral("a2"), ProviderWire::anthropic, a.id);
    newerA.cachedModels = {QStringLiteral("claude")};
    const Provider c = provider(QStringLiteral("c"));
    const Provider d = provider(QStringLiteral("d"));
    providers.merge({c, newerA, d});
    QCOMPARE(providers.providers(), (QList<Provider>{newerA, b, c, d}));
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(b.id));
    QCOMPARE(storedProviders(), providers.providers());
}

void tst_ProviderStore::readOnlyFolder_keepsMemoryAndOldFile()
{
    const Provider a = provider(QStringLiteral("a"));
    ProviderStore providers;
    providers.add(a);
    const QString file = providers.settingsFileName();
    const QByteArray before = readAll(file);
    QVERIFY(!before.isEmpty());

    const Provider b = provider(QStringLiteral("b"));
    {
        ReadOnlyFolder readOnly(QFileInfo(file).absolutePath(), m_profile->root());
        if (!readOnly.isEffective())
            QSKIP("cannot make a folder read-only for this user");
        providers.add(b);
        providers.remove(a);
    }
    QCOMPARE(providers.providers(), QList<Provider>{b});
    QCOMPARE(providers.selectedID(), std::optional<QUuid>(b.id));
    QCOMPARE(readAll(file), before);
}

QTEST_GUILESS_MAIN(tst_ProviderStore)
#include "tst_providerstore.moc"
