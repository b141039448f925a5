#include "chat/chatviewmodel.h"
#include "mockprovider.h"
#include "storage/configarchive.h"
#include "storage/conversationstore.h"
#include "storage/historyfile.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"
#include "ui/aboutdialog.h"
#include "ui/composereditor.h"
#include "ui/composerfield.h"
#include "ui/contentview.h"
#include "ui/mainwindow.h"
#include "ui/providereditor.h"
#include "ui/quitsignals.h"
#include "ui/settingsview.h"
#include "ui/verboltapp.h"
#include "verboltversion.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <csignal>
#include <future>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

ChatViewModel *chatOf(MainWindow *window)
{
    return static_cast<ContentView *>(window->content())->chat();
}

void activate(QWidget *window)
{
    window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(window));
}

enum class Command { newChat, settings, newWindow, quit };

enum class Ending { quitMenu, lastWindowClosed, signal };

} // namespace

Q_DECLARE_METATYPE(Command)
Q_DECLARE_METATYPE(Ending)

class tst_VerboltApp final : public QObject
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
        QFile::remove(m_profile->conversationsFile());
    }

    // A new user's path: the empty state's button, a preset, and the composer ready to type in.
    // Return in the settings window saves the form and presses no other button.
    void firstStart_settingsThenComposer()
    {
        VerboltApp app;
        MainWindow *window = app.newWindow();
        activate(window);
        QVERIFY(window->findChild<QWidget *>(u"emptyState"_s)->isVisible());
        QTest::mouseClick(window->findChild<QAbstractButton *>(u"openSettingsButton"_s), Qt::LeftButton);
        SettingsView *settings = app.settingsView();
        QVERIFY(settings && settings->isVisible());
        StorageTest::ScriptedDialogs dialogs;
        settings->setFileDialogs(&dialogs);
        activate(settings->window());
        QTest::keyClick(settings->findChild<QWidget *>(u"providers"_s), Qt::Key_Return);

        settings->findChild<QToolButton *>(u"addProvider"_s)->menu()->actions().last()->trigger();
        QLineEdit *name = settings->editor()->findChild<QLineEdit *>(u"name"_s);
        name->setFocus();
        name->selectAll();
        QTest::keyClicks(name, u"After"_s);
        QTest::keyClick(name, Qt::Key_Return);
        QCOMPARE(app.store()->providers().first().name, u"After"_s);
        QVERIFY(dialogs.saves.isEmpty() && dialogs.opens.isEmpty());
        settings->window()->close();
        QVERIFY(window->findChild<QWidget *>(u"chatArea"_s)->isVisible());

        activate(window);
        auto *composer = window->findChild<ComposerField *>()->findChild<QPlainTextEdit *>();
        QCOMPARE(QApplication::focusWidget(), composer); // not the sidebar's button next to the gone one
    }

    void shortcuts_data()
    {
        QTest::addColumn<Command>("command");
        QTest::addColumn<QKeySequence>("keys");
        QTest::newRow("new chat for the selected provider") << Command::newChat << QKeySequence(u"Ctrl+N"_s);
        QTest::newRow("settings") << Command::settings << QKeySequence(u"Ctrl+,"_s);
        QTest::newRow("new window") << Command::newWindow << QKeySequence(u"Ctrl+Shift+N"_s);
        QTest::newRow("quit") << Command::quit << QKeySequence(u"Ctrl+Q"_s);
    }
    // Pressed wherever the focus is in the window, the composer included.
    void shortcuts()
    {
        QFETCH(Command, command);
        QFETCH(QKeySequence, keys);
        VerboltApp app;
        app.store()->add(StorageTest::provider(u"P"_s));
        MainWindow *window = app.newWindow();
        activate(window);
        window->content()->setFocus();
        QWidget *focus = QApplication::focusWidget() ? QApplication::focusWidget() : window;
        QSignalSpy ended(&app, &VerboltApp::lastMainWindowClosed);
        const qsizetype chatsBefore = app.chats()->conversations().size();

        QTest::keySequence(focus, keys);

        switch (command) {
        case Command::newChat:
            QCOMPARE(app.chats()->conversations().size(), chatsBefore + 1);
            QCOMPARE(app.chats()->selectedID(), app.chats()->conversations().first().id);
            QCOMPARE(app.chats()->conversations().first().providerID, app.store()->selectedID());
            QVERIFY(app.chats()->conversations().first().providerID.has_value());
            // The empty chat is reused, also after another one was chosen meanwhile.
            app.chats()->newChat(std::nullopt);
            app.chats()->setSelectedID(app.chats()->conversations().last().id);
            for (int i = 0; i < 3; ++i)
                QTest::keySequence(focus, keys);
            QCOMPARE(app.chats()->conversations().size(), chatsBefore + 2);
            QCOMPARE(app.chats()->selectedID(), app.chats()->conversations().first().id);
            break;
        case Command::settings:
            QVERIFY(app.settingsView());
            QVERIFY(app.settingsView()->isVisible());
            break;
        case Command::newWindow:
            QCOMPARE(app.mainWindows().size(), 2);
            QVERIFY(app.mainWindows().last()->isVisible());
            break;
        case Command::quit:
            QTRY_COMPARE(app.mainWindows().size(), 0);
            QCOMPARE(ended.size(), 1);
            break;
        }
    }

    // Main windows keep a usable size and do not hide each other; the settings window is one
    // fixed-size window, however often asked for, and like the About window reached from every main
    // window's Help menu, does not keep the program running.
    void windows_sizesAndLifetimes()
    {
        VerboltApp app;
        QSignalSpy ended(&app, &VerboltApp::lastMainWindowClosed);
        MainWindow *first = app.newWindow();
        QCOMPARE(first->minimumSize(), QSize(760, 480));
        first->resize(200, 100);
        QVERIFY(first->width() >= 760 && first->height() >= 480);
        QVERIFY(!first->findChild<QWidget *>(u"keptAsideBar"_s)->isVisible());
        MainWindow *second = app.newWindow();
        QVERIFY(second->pos() != first->pos());

        app.showSettings();
        SettingsView *settings = app.settingsView();
        QWidget *window = settings->window();
        QVERIFY(window != settings);
        QCOMPARE(window->size(), QSize(580, 520));
        QCOMPARE(window->minimumSize(), window->maximumSize());
        window->close();
        QVERIFY(!settings->isVisible());
        app.showSettings();
        app.showSettings();
        QCOMPARE(app.settingsView(), settings);
        QVERIFY(settings->isVisible());
        QCOMPARE(window->size(), QSize(580, 520));
        first->aboutAction()->trigger();
        AboutDialog *about = app.aboutWindow();
        QVERIFY(about && about->isVisible());
        // It says what a bug report needs.
        QStringList lines;
        for (const QLabel *label : about->findChildren<QLabel *>()) {
            lines.append(label->text());
            QVERIFY(!label->accessibleName().isEmpty());
        }
        const QString text = lines.join(u'\n');
        QVERIFY2(text.contains(u"Version %1"_s.arg(QLatin1StringView(Verbolt::version))), qPrintable(text));
        QVERIFY2(text.contains(u"Qt "_s + QString::fromLatin1(qVersion())), qPrintable(text));
        QVERIFY2(text.contains(u"Licence: %1"_s.arg(QLatin1StringView(Verbolt::licence))), qPrintable(text));
        second->aboutAction()->trigger();
        QCOMPARE(app.aboutWindow(), about);

        first->close();
        QTRY_COMPARE(app.mainWindows().size(), 1);
        QCOMPARE(ended.size(), 0);
        QVERIFY(settings->isVisible());
        second->close();
        QTRY_COMPARE(ended.size(), 1);
        QVERIFY(!settings->isVisible());
        QVERIFY(!about->isVisible());
    }

    void endingMidReply_savesWhatArrived_data()
    {
        QTest::addColumn<Ending>("ending");
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("File > Quit") << Ending::quitMenu << 0;
        QTest::newRow("last window closed") << Ending::lastWindowClosed << 0;
        QTest::newRow("SIGTERM") << Ending::signal << SIGTERM;
        QTest::newRow("SIGHUP") << Ending::signal << SIGHUP;
        QTest::newRow("SIGINT") << Ending::signal << SIGINT;
    }
    // However the program is told to end while a reply streams, the reply ends as a Stop and is in
    // the file, with what had arrived, by the time the program may exit.
    void endingMidReply_savesWhatArrived()
    {
        QFETCH(Ending, ending);
        QFETCH(int, signalNumber);
        m_mock.setOptions({.reply = u"word "_s.repeated(200), .tokensPerSecond = 40});
        const auto restore = qScopeGuard([this] { m_mock.setOptions({}); });

        QList<ChatMessage> shown;
        {
            VerboltApp app;
            QuitSignals quitSignals;
            QVERIFY(quitSignals.isInstalled());
            connect(&quitSignals, &QuitSignals::quitRequested, &app, &VerboltApp::quit);
            QSignalSpy ended(&app, &VerboltApp::lastMainWindowClosed);
            Provider p = StorageTest::provider(u"Mock"_s);
            p.baseURL = m_mock.baseURL();
            app.store()->add(p);
            // The reply streams in the window the ending does not come from.
            MainWindow *one = app.newWindow();
            MainWindow *two = app.newWindow();
            app.chats()->newChat(p.id);
            chatOf(two)->setInput(u"second"_s);
            chatOf(two)->send(p);
            QTRY_VERIFY(chatOf(two)->messages().last().content.size() > 10);
            QVERIFY(chatOf(two)->isStreaming());

            switch (ending) {
            case Ending::quitMenu:
                one->quitAction()->trigger();
                break;
            case Ending::lastWindowClosed:
                one->close();
                two->close();
                break;
            case Ending::signal:
                QCOMPARE(::raise(signalNumber), 0);
                break;
            }
            QTRY_COMPARE(ended.size(), 1);
            shown = app.chats()->conversations().first().messages;
            QCOMPARE(shown.size(), 2);
            QVERIFY(shown.last().content.startsWith(u"word word"_s));
            if (ending != Ending::lastWindowClosed) {
                // Already on disk, before the program is even asked to end.
                const HistoryFile::ReadResult read = HistoryFile::read(m_profile->conversationsFile());
                QCOMPARE(read.conversations.first().messages, shown);
            }
        }
        const HistoryFile::ReadResult read = HistoryFile::read(m_profile->conversationsFile());
        QCOMPARE(read.status, HistoryFile::ReadResult::Status::Decoded);
        QCOMPARE(read.conversations.first().messages, shown);
    }

    void unreadableFile_namedInBarUntilDismissed_data()
    {
        QTest::addColumn<bool>("history");
        QTest::newRow("conversations") << true;
        QTest::newRow("providers") << false;
    }
    void unreadableFile_namedInBarUntilDismissed()
    {
        QFETCH(bool, history);
        if (history)
            QVERIFY(StorageTest::writeAll(m_profile->conversationsFile(), "[{\"broken\":"));
        else
            StorageTest::settings().setValue(ProviderStore::providersKey, QByteArray("[{\"broken\":"));
        VerboltApp app;
        const std::optional<QString> kept = history ? app.chats()->keptAsidePath() : app.store()->keptAsideKey();
        QVERIFY(kept);
        MainWindow *one = app.newWindow();
        MainWindow *two = app.newWindow();
        for (MainWindow *window : {one, two}) {
            QVERIFY(window->findChild<QWidget *>(u"keptAsideBar"_s)->isVisible());
            QCOMPARE(window->keptAsideNotices().size(), 1);
            QVERIFY2(window->keptAsideNotices().first().contains(*kept),
                     qPrintable(window->keptAsideNotices().first()));
        }
        // The bar's tint follows a switch to a dark palette while it shows.
        const QPalette light = QApplication::palette();
        QWidget *bar = one->findChild<QWidget *>(u"keptAsideBar"_s);
        QVERIFY(bar->palette().color(QPalette::Window).lightness() > 128);
        QApplication::setPalette(QPalette(QColor(0x30, 0x30, 0x30)));
        QCoreApplication::processEvents(); // widgets hear of it on the next turn of the loop
        QVERIFY(bar->palette().color(QPalette::Window).lightness() < 128);
        QApplication::setPalette(light);
        QCoreApplication::processEvents();

        QTest::mouseClick(one->findChild<QPushButton *>(u"dismissKeptAside"_s), Qt::LeftButton);
        QVERIFY(!one->findChild<QWidget *>(u"keptAsideBar"_s)->isVisible());
        QVERIFY(!two->findChild<QWidget *>(u"keptAsideBar"_s)->isVisible());
        QVERIFY(app.newWindow()->keptAsideNotices().isEmpty());
        if (history)
            QVERIFY(QFile::exists(*kept));
        else
            QVERIFY(StorageTest::settings().contains(*kept));
    }

    void secondStart_handsItsRequestOver_data()
    {
        QTest::addColumn<bool>("newWindow");
        QTest::addColumn<bool>("withFile");
        QTest::addColumn<bool>("accept");
        QTest::newRow("new window") << true << false << false;
        QTest::newRow("file alone, imported") << false << true << true;
        QTest::newRow("file and new window, declined") << true << true << false;
    }
    // A later start hands its request to the running program, which opens a window, and for a file
    // asks before it merges. A socket file left behind by a program that ended abruptly stops no one.
    void secondStart_handsItsRequestOver()
    {
        QFETCH(bool, newWindow);
        QFETCH(bool, withFile);
        QFETCH(bool, accept);
        const QString archive = m_profile->root() + u"/exported config.json"_s;
        const Provider imported = StorageTest::provider(u"Imported"_s);
        QVERIFY(StorageTest::writeAll(archive, ConfigArchive::encode({1, {imported}, {}})));
        const std::optional<QString> file = withFile ? std::optional(archive) : std::nullopt;

        static int run = 0;
        const QString name = m_profile->root() + u"/verbolt-%1.socket"_s.arg(++run);
        QVERIFY(!VerboltApp::handOverToRunningInstance(name, newWindow, file));
        QVERIFY(StorageTest::writeAll(name, ""));
        VerboltApp app;
        QVERIFY(app.acceptOtherStarts(name));
        app.newWindow();
        auto second = std::async(std::launch::async,
                                 [&] { return VerboltApp::handOverToRunningInstance(name, newWindow, file); });
        QTRY_VERIFY(second.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        QVERIFY(second.get());
        QTRY_COMPARE(app.mainWindows().size(), newWindow ? 2 : 1);
        if (!withFile)
            return;
        QTRY_VERIFY(app.settingsView() && app.settingsView()->importQuestion());
        QVERIFY(app.settingsView()->isVisible());
        QMessageBox *question = app.settingsView()->importQuestion();
        QVERIFY(question->text().contains(u"“exported config.json”"_s));
        QVERIFY(app.store()->providers().isEmpty()); // nothing before the answer

        const auto buttons = question->buttons();
        const auto chosen = std::find_if(buttons.begin(), buttons.end(), [&](QAbstractButton *b) {
            return question->buttonRole(b) == (accept ? QMessageBox::AcceptRole : QMessageBox::RejectRole);
        });
        QVERIFY(chosen != buttons.end());
        QTest::mouseClick(*chosen, Qt::LeftButton);
        QTRY_VERIFY(!app.settingsView()->importQuestion());
        QCOMPARE(StorageTest::ids(app.store()->providers()), accept ? QList<QUuid>{imported.id} : QList<QUuid>{});
        QCOMPARE(app.settingsView()->backupNote(),
                 accept ? std::optional<QString>(u"Config imported."_s) : std::nullopt);
    }
};

QTEST_MAIN(tst_VerboltApp)
#include "tst_verboltapp.moc"
