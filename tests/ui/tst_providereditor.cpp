#include "mockprovider.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"
#include "ui/providereditor.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

// The editor in a window of its own, as the settings window shows it.
struct Form
{
    explicit Form(ProviderStore &store, const QUuid &id)
        : editor(std::make_unique<ProviderEditor>(&store, id))
    {
        editor->show();
    }
    template<class T>
    T *child(const QString &name) const
    {
        return editor->findChild<T *>(name);
    }
    QLineEdit *edit(const QString &name) const { return child<QLineEdit>(name); }
    void type(const QString &field, const QString &text) const
    {
        edit(field)->clear();
        QTest::keyClicks(edit(field), text);
    }
    void click(const QString &button) const { QTest::mouseClick(child<QPushButton>(button), Qt::LeftButton); }
    QString error() const
    {
        QLabel *label = child<QLabel>(u"fetchError"_s);
        return label->isVisible() ? label->text() : QString();
    }
    bool savedShown() const { return child<QLabel>(u"savedNote"_s)->isVisible(); }
    QToolButton *chooser() const { return child<QToolButton>(u"chooseModel"_s); }

    std::unique_ptr<ProviderEditor> editor;
};

} // namespace

class tst_ProviderEditor final : public QObject
{
    Q_OBJECT

    std::unique_ptr<StorageTest::Profile> m_profile;
    MockProvider m_mock;

private slots:
    void initTestCase()
    {
        m_profile = std::make_unique<StorageTest::Profile>();
        QVERIFY2(m_mock.listen(), qPrintable(m_mock.errorString()));
    }

    void init()
    {
        StorageTest::settings().clear();
        m_mock.setOptions({});
    }

    void fetchGuards_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("baseURL");
        QTest::addColumn<QString>("error");
        const QString noKey = u"Paste your API key first."_s, noURL = u"Set the Base URL first."_s;
        QTest::newRow("both empty: the key is asked for first") << QString() << QString() << noKey;
        QTest::newRow("key of blanks") << u"   "_s << u"http://127.0.0.1:1/v1"_s << noKey;
        QTest::newRow("base URL of blanks") << u"sk"_s << u"   "_s << noURL;
    }
    void fetchGuards()
    {
        QFETCH(QString, key);
        QFETCH(QString, baseURL);
        QFETCH(QString, error);
        ProviderStore store;
        store.add({QUuid::createUuid(), u"P"_s, ProviderWire::openAI, u"https://stored.example/v1"_s, {}, {}, u"sk"_s});
        Form form(store, store.providers().first().id);
        form.type(u"apiKey"_s, key);
        form.type(u"baseURL"_s, baseURL);
        form.click(u"fetchModels"_s);
        QCOMPARE(form.error(), error);
        QVERIFY(!form.editor->isFetching());
        // A fetch that runs clears the old message first, and caches its list even when the form is
        // gone before it ends.
        form.type(u"apiKey"_s, u"sk"_s);
        form.type(u"baseURL"_s, m_mock.baseURL());
        form.click(u"fetchModels"_s);
        QCOMPARE(form.error(), QString());
        QVERIFY(form.editor->isFetching());
        form.editor.reset();
        QTRY_COMPARE(store.providers().first().cachedModels.size(), m_mock.options().models.size());
    }

    void fetch_data()
    {
        QTest::addColumn<QStringList>("models");
        QTest::addColumn<int>("failStatus");
        QTest::addColumn<QString>("error");
        QTest::newRow("three models") << QStringList{u"b-model"_s, u"a-model"_s, u"c-model"_s} << 0 << QString();
        QTest::newRow("empty list") << QStringList() << 0 << u"No models returned."_s;
        QTest::newRow("server error") << QStringList{u"x"_s} << 500 << u"HTTP 500"_s;
    }
    // The fetch uses the form as typed (unsaved wire and URL, key trimmed), caches the list in the
    // store at once and writes nothing else; "Save" writes the fields untrimmed.
    void fetch()
    {
        QFETCH(QStringList, models);
        QFETCH(int, failStatus);
        QFETCH(QString, error);
        m_mock.setOptions(
            {.failStatus = failStatus, .failBody = "overloaded", .requireKey = u"sk-live"_s, .models = models});

        ProviderStore store;
        const Provider original{
            QUuid::createUuid(), u"Before"_s, ProviderWire::anthropic, u"http://127.0.0.1:1/v1"_s, u"kept-model"_s,
            {u"old"_s},          u""_s};
        store.add(original);
        Form form(store, original.id);
        form.type(u"name"_s, u"After"_s);
        form.child<QComboBox>(u"wire"_s)->setCurrentIndex(0);
        form.type(u"baseURL"_s, m_mock.baseURL());
        form.type(u"apiKey"_s, u"  sk-live  "_s);
        form.click(u"fetchModels"_s);
        QVERIFY(form.editor->isFetching());
        QVERIFY(!form.child<QPushButton>(u"fetchModels"_s)->isVisible());
        QTRY_VERIFY(!form.editor->isFetching());

        QVERIFY2(form.error().contains(error), qPrintable(form.error()));
        Provider expected = original;
        if (failStatus == 0) {
            QStringList sorted = models;
            sorted.sort();
            QCOMPARE(form.editor->fetchedModels(), sorted);
            expected.cachedModels = sorted;
        } else {
            QVERIFY(!error.isEmpty());
            QCOMPARE(form.editor->fetchedModels(), original.cachedModels); // the old list stays offered
        }
        QCOMPARE(*store.find(original.id), expected);
        const QStringList offered = form.editor->fetchedModels();
        QCOMPARE(form.chooser()->isVisible(), !offered.isEmpty());
        if (offered.isEmpty())
            return;

        QCOMPARE(form.chooser()->text(), u"Choose (%1)"_s.arg(offered.size()));
        const QList<QAction *> items = form.chooser()->menu()->actions();
        QCOMPARE(items.size(), offered.size());
        items.last()->trigger();
        QCOMPARE(form.edit(u"model"_s)->text(), offered.last());
        QCOMPARE(store.find(original.id)->model, original.model);

        form.click(u"save"_s);
        QVERIFY(form.savedShown());
        const Provider saved = *store.find(original.id);
        QCOMPARE(saved.name, u"After"_s);
        QCOMPARE(saved.wire, ProviderWire::openAI);
        QCOMPARE(saved.model, offered.last());
        QCOMPARE(saved.apiKey, u"  sk-live  "_s);
        QCOMPARE(saved.cachedModels, offered);
        form.type(u"name"_s, u"Edited again"_s);
        QVERIFY(form.savedShown());
    }

    void proxy_savedOnlyWhenUsable_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("saved"); // null: not saved
        QTest::addColumn<QString>("shown"); // in the field once typed
        QTest::newRow("empty: the system's") << u""_s << u""_s << u""_s;
        QTest::newRow("http, blanks dropped")
            << u" http://10.0.0.2:3128 "_s << u"http://10.0.0.2:3128"_s << u" http://10.0.0.2:3128 "_s;
        QTest::newRow("socks5, password never shown")
            << u"socks5://me:pw@h:1080"_s << u"socks5://me:pw@h:1080"_s << u"socks5://me@h:1080"_s;
        QTest::newRow("no scheme") << u"10.0.0.2:3128"_s << QString() << u"10.0.0.2:3128"_s;
    }

    void proxy_savedOnlyWhenUsable()
    {
        QFETCH(QString, typed);
        QFETCH(QString, saved);
        QFETCH(QString, shown);
        ProviderStore store;
        const QUuid id = QUuid::createUuid();
        store.add({id, u"P"_s, ProviderWire::openAI, u"http://127.0.0.1:1/v1"_s, {}, {}, u"sk"_s});
        Form form(store, id);
        QLineEdit *field = form.edit(u"proxy"_s);
        QCOMPARE(field->accessibleName(), u"Proxy"_s);
        QTest::keyClicks(field, typed);
        QCOMPARE(field->text(), shown);
        QCOMPARE(form.edit(u"proxyPassword"_s)->echoMode(), QLineEdit::Password);
        form.click(u"save"_s);
        QLabel *note = form.child<QLabel>(u"proxyError"_s);
        QCOMPARE(note->isVisible(), saved.isNull());
        QCOMPARE(form.savedShown(), !saved.isNull());
        QCOMPARE(store.find(id)->proxy, saved.isNull() ? QString() : saved);
        if (saved.isNull()) {
            QCOMPARE(note->text(), u"Enter the proxy as http://host:port or socks5://host:port, or leave it empty to "
                                   "use the system's proxy settings."_s);
            form.type(u"proxy"_s, u"http://10.0.0.2:3128"_s);
            QVERIFY(!note->isVisible());
            return;
        }
        // Shown again from the store, the password stays in its masked field.
        form.editor->hide();
        form.editor->show();
        QCOMPARE(field->text(), saved.contains(u'@') ? shown : saved);
    }

    // The form shows the stored provider as it was when the form appeared.
    void loadsOnAppearanceOnly_andSaveOfRemovedProviderIsNoop()
    {
        ProviderStore store;
        Provider p = Provider::presets().at(2);
        p.id = QUuid::createUuid();
        store.add(p);
        Form form(store, p.id);
        QCOMPARE(form.edit(u"name"_s)->text(), p.name);
        QCOMPARE(form.child<QComboBox>(u"wire"_s)->currentText(), displayLabel(p.wire));
        QCOMPARE(form.edit(u"baseURL"_s)->text(), p.baseURL);
        QCOMPARE(form.edit(u"model"_s)->text(), p.model);
        QCOMPARE(form.edit(u"apiKey"_s)->echoMode(), QLineEdit::Password);
        QVERIFY(!form.savedShown());
        form.click(u"save"_s);
        QVERIFY(form.savedShown());

        // A change in the store does not reach an open form: it would overwrite the user's typing.
        const QString before = p.name;
        p.name = u"Renamed elsewhere"_s;
        store.update(p);
        QCOMPARE(form.edit(u"name"_s)->text(), before);
        form.editor->hide();
        form.editor->show();
        QCOMPARE(form.edit(u"name"_s)->text(), u"Renamed elsewhere"_s);
        QVERIFY(!form.savedShown());

        store.remove(p);
        form.type(u"name"_s, u"Ghost"_s);
        form.click(u"save"_s);
        QVERIFY(!form.savedShown());
        QVERIFY(store.providers().isEmpty());
    }
};

QTEST_MAIN(tst_ProviderEditor)
#include "tst_providereditor.moc"
