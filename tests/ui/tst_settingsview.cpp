#include "storage/conversationstore.h"
#include "storage/historybackups.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"
#include "ui/providereditor.h"
#include "ui/restoredialog.h"
#include "ui/settingsview.h"

#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Qt::StringLiterals;
using StorageTest::conversation;
using StorageTest::provider;

namespace {

struct Settings
{
    Settings()
    {
        view = std::make_unique<SettingsView>(&store, &chats);
        view->setFileDialogs(&dialogs);
    }
    void show() { view->show(); }
    template<class T>
    T *child(const QString &name) const
    {
        return view->findChild<T *>(name);
    }
    QListWidget *list() const { return child<QListWidget>(u"providers"_s); }
    QStringList rows() const
    {
        QStringList names;
        for (int i = 0; i < list()->count(); ++i)
            names.append(list()->item(i)->text());
        return names;
    }
    bool warns(int row) const { return !list()->item(row)->icon().isNull(); }
    void click(const QString &button) const { QTest::mouseClick(child<QAbstractButton>(button), Qt::LeftButton); }
    QString note() const
    {
        QLabel *label = child<QLabel>(u"backupNote"_s);
        return label->isVisible() ? label->text() : QString();
    }
    void addPreset(int index) const { child<QToolButton>(u"addProvider"_s)->menu()->actions().at(index)->trigger(); }

    ProviderStore store;
    ConversationStore chats;
    StorageTest::ScriptedDialogs dialogs;
    std::unique_ptr<SettingsView> view;
};

QList<Provider> three()
{
    return {provider(u"A"_s), provider(u"B"_s), provider(u"C"_s)};
}

} // namespace

class tst_SettingsView final : public QObject
{
    Q_OBJECT

    std::unique_ptr<StorageTest::Profile> m_profile;

private slots:
    void initTestCase() { m_profile = std::make_unique<StorageTest::Profile>(); }

    void init()
    {
        StorageTest::settings().clear();
        QFile::remove(m_profile->conversationsFile());
    }

    void remove_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("removed");
        QTest::addColumn<QStringList>("left");
        QTest::newRow("the last: the first is picked, not the neighbour") << 3 << 2 << QStringList{u"A"_s, u"B"_s};
        QTest::newRow("the middle") << 3 << 1 << QStringList{u"A"_s, u"C"_s};
        QTest::newRow("the only one") << 1 << 0 << QStringList();
    }
    void remove()
    {
        QFETCH(int, count);
        QFETCH(int, removed);
        QFETCH(QStringList, left);
        Settings s;
        for (const Provider &p : three().mid(0, count))
            s.store.add(p);
        s.show();
        s.list()->setCurrentRow(removed);
        QCOMPARE(s.view->editor()->providerID(), s.store.providers().at(removed).id);
        s.click(u"removeProvider"_s);

        QCOMPARE(s.rows(), left);
        if (left.isEmpty()) {
            QCOMPARE(s.view->selection(), std::nullopt);
            QVERIFY(!s.view->editor());
            QVERIFY(!s.child<QToolButton>(u"removeProvider"_s)->isEnabled());
            bool hint = false;
            for (QLabel *label : s.view->findChildren<QLabel *>())
                hint |= label->isVisible() && label->text() == u"Add a provider with the + button."_s;
            QVERIFY(hint);
        } else {
            QCOMPARE(s.view->selection(), s.store.providers().first().id);
            QCOMPARE(s.list()->currentRow(), 0);
            QCOMPARE(s.view->editor()->providerID(), s.store.providers().first().id);
        }
    }

    void appearance_seedsSelectionFromStore_data()
    {
        QTest::addColumn<int>("storeSelects"); // -1: nothing selected in the store
        QTest::addColumn<int>("expectedRow");
        QTest::newRow("the store's pick") << 2 << 2;
        QTest::newRow("no pick: the first") << -1 << 0;
    }
    void appearance_seedsSelectionFromStore()
    {
        QFETCH(int, storeSelects);
        QFETCH(int, expectedRow);
        Settings s;
        for (const Provider &p : three())
            s.store.add(p);
        s.store.setSelectedID(storeSelects < 0 ? std::nullopt : std::optional(s.store.providers().at(storeSelects).id));
        QCOMPARE(s.view->selection(), std::nullopt);
        s.show();
        QCOMPARE(s.view->selection(), s.store.providers().at(expectedRow).id);
        QCOMPARE(s.list()->currentRow(), expectedRow);

        // Its own pick afterwards: the store's selection neither follows nor leads it.
        s.list()->setCurrentRow(1);
        s.view->hide();
        s.store.setSelectedID(s.store.providers().at(0).id);
        s.view->show();
        QCOMPARE(s.view->selection(), s.store.providers().at(1).id);
    }

    void warningFollowsSavedKey_presetAddedHere_tabWalksInOrder()
    {
        Settings s;
        Provider keyless = provider(u"Keyless"_s);
        keyless.apiKey.clear();
        Provider blankKey = provider(u"Blank"_s);
        blankKey.apiKey = u" "_s; // only an exactly empty key warns
        s.store.add(keyless);
        s.store.add(blankKey);
        s.show();
        QVERIFY(s.warns(0));
        QVERIFY(!s.warns(1));
        QCOMPARE(s.list()->item(0)->toolTip(), u"No API key"_s);
        // Tab walks the window as it reads: list, its buttons, the form, the default system prompt,
        // then the backup bar; also for a form made after the window was built (the preset's, below).
        const auto tabOrder = [&s] {
            QStringList order;
            QWidget *w = s.list();
            do {
                if (w->isVisible() && (w->focusPolicy() & Qt::TabFocus)) {
                    const auto *button = qobject_cast<QAbstractButton *>(w);
                    order.append(!w->accessibleName().isEmpty() ? w->accessibleName()
                                 : button                       ? button->text()
                                                                : QString::fromLatin1(w->metaObject()->className()));
                }
                w = w->nextInFocusChain();
            } while (w != s.list() && order.size() < 40);
            return order;
        };
        const QStringList expected = u"Providers|Add provider|Remove provider|Name|Type|Base URL|Proxy|Proxy password|"
                                     "Model|Fetch models|Choose (2)|API key|Save|System prompt for new chats|"
                                     "Export Config…|Import Config…|Restore…|Announce replies"_s.split(u'|');
        QCOMPARE(tabOrder(), expected);

        QPointer<ProviderEditor> first = s.view->editor();
        QTest::keyClicks(first->findChild<QLineEdit *>(u"apiKey"_s), u"sk-new"_s);
        // Re-picking the same provider keeps the form and what was typed in it.
        s.view->setSelection(keyless.id);
        QCOMPARE(s.view->editor(), first.data());
        QTest::mouseClick(first->findChild<QPushButton *>(u"save"_s), Qt::LeftButton);
        QVERIFY(!s.warns(0));

        // A preset is added as a provider of its own and picked here, while the store keeps its pick.
        const std::optional<QUuid> before = s.store.selectedID();
        s.addPreset(1);
        const Provider added = s.store.providers().last();
        const Provider &preset = Provider::presets().at(1);
        QVERIFY(added.id != preset.id);
        QCOMPARE(added.name, preset.name);
        QCOMPARE(s.view->selection(), added.id);
        QCOMPARE(s.store.selectedID(), before);
        QCOMPARE(s.view->editor()->providerID(), added.id);
        QCOMPARE(s.list()->currentItem()->text(), preset.name);
        QVERIFY(s.warns(2));
        // This store was never given a keyring: its keys are in the preferences file.
        QCOMPARE(s.view->editor()->findChild<QLabel *>(u"keyNote"_s)->text(),
                 u"Stored in Verbolt's settings file: no keyring is available."_s);
        QStringList withoutMenu = expected;
        withoutMenu.removeAll(u"Choose (2)"_s);
        QCOMPARE(tabOrder(), withoutMenu);
    }

    // Each button says in a note what it did, kept until the view is rebuilt; an import starts
    // again from the store's pick, whatever the list showed. What an archive holds, and which ones
    // are refused, is the archive's own business.
    void backupAndRestore()
    {
        const QString file = m_profile->root() + u"/verbolt-config.json"_s;
        QFile::remove(file);
        Settings s;
        for (const Provider &p : three())
            s.store.add(p);
        s.dialogs.answer = file;
        s.show();
        s.click(u"exportConfig"_s);
        QCOMPARE(s.note(), u"Config exported."_s);
        const QByteArray exported = StorageTest::readAll(file);
        QVERIFY(StorageTest::writeAll(file, "{ not json"));
        for (const QByteArray &bytes : {QByteArray(), exported}) {
            if (!bytes.isEmpty())
                QVERIFY(StorageTest::writeAll(file, bytes));
            s.list()->setCurrentRow(2);
            s.click(u"importConfig"_s);
            if (bytes.isEmpty())
                QVERIFY2(s.note().startsWith(u"Import failed: "_s), qPrintable(s.note()));
            else
                QCOMPARE(s.note(), u"Config imported."_s);
            QCOMPARE(s.view->selection(), s.store.selectedID());
            QCOMPARE(s.view->editor()->providerID(), *s.store.selectedID());
        }
        QCOMPARE(s.dialogs.opens.size(), 2);
        s.list()->setCurrentRow(-1);
        QVERIFY(!s.note().isEmpty());

        // Restore lists the history's dated copies, one that cannot be read among them, and tells
        // what came back.
        const Conversation current = conversation(u"edited today"_s, 500);
        s.chats.merge({current});
        Conversation older = current;
        older.title = u"as it was"_s;
        older.updatedAt = 100;
        const QList<Conversation> copy = {older, conversation(u"deleted"_s, 90), conversation(u"also deleted"_s, 80)};
        const QDate day(2026, 11, 20);
        QVERIFY(StorageTest::writeAll(HistoryBackups::pathFor(s.chats.fileURL(), day), encodeJson(copy)));
        QVERIFY(StorageTest::writeAll(HistoryBackups::pathFor(s.chats.fileURL(), day.addDays(1)), "not json"));
        s.click(u"restoreHistory"_s);
        RestoreDialog *dialog = s.view->restoreDialog();
        QVERIFY(dialog);
        QSignalSpy counted(dialog, &RestoreDialog::counted);
        QVERIFY(counted.wait(10000));
        auto *rows = dialog->findChild<QListWidget *>(u"backupCopies"_s);
        QCOMPARE(rows->count(), 2);
        QVERIFY2(rows->item(0)->text().endsWith(u"cannot be read"_s), qPrintable(rows->item(0)->text()));
        QVERIFY2(rows->item(1)->text().contains(u"Nov 20, 2026 — 3 conversations"_s),
                 qPrintable(rows->item(1)->text()));

        dialog->restoreCopy(1);
        QTRY_COMPARE_WITH_TIMEOUT(s.note(), u"Restored 2 conversations from Nov 20."_s, 10000);
        QTRY_VERIFY(!s.view->restoreDialog());
    }
};

QTEST_MAIN(tst_SettingsView)
#include "tst_settingsview.moc"
