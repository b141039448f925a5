// verbolt-screenshots: walks the real windows through a first start, the way a new user would
// (empty profile, add a provider in the settings, paste a key, fetch and pick a model, chat, hit
// an error), and saves each window in the light and the dark palette as PNG files. Run it in a
// scratch profile against verbolt-mock-provider; tools/screenshots.sh does both.
#include "chat/chatviewmodel.h"
#include "storage/conversationstore.h"
#include "storage/filedialogs.h"
#include "storage/providerstore.h"
#include "ui/aboutdialog.h"
#include "ui/contentview.h"
#include "ui/mainwindow.h"
#include "ui/providereditor.h"
#include "ui/settingsview.h"
#include "ui/verboltapp.h"

#include <QAction>
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPalette>
#include <QStandardPaths>
#include <QStyleFactory>
#include <QToolButton>

#include <cstdio>
#include <functional>

using namespace Qt::StringLiterals;

namespace {

bool waitUntil(const std::function<bool()> &done, int timeoutMs = 20000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    return done();
}

void settle(int ms = 300)
{
    waitUntil([] { return false; }, ms);
}

QPalette darkPalette()
{
    QPalette p;
    const QColor window(0x2b, 0x2b, 0x2e), base(0x1e, 0x1e, 0x20), text(0xe8, 0xe8, 0xea);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3e));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::BrightText, Qt::white);
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x7a, 0xed));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(0x98, 0x98, 0x9d));
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::Link, QColor(0x5e, 0x9e, 0xff));
    p.setColor(QPalette::Mid, QColor(0x45, 0x45, 0x4a));
    p.setColor(QPalette::Dark, QColor(0x18, 0x18, 0x1a));
    p.setColor(QPalette::Light, QColor(0x55, 0x55, 0x5a));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x85));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x85));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x85));
    return p;
}

class Shooter
{
public:
    explicit Shooter(QString folder)
        : m_folder(std::move(folder))
        , m_light(QApplication::palette())
    {}

    // Saves <name>-light.png and <name>-dark.png of the window as it is now.
    bool shoot(QWidget *window, const QString &name)
    {
        bool ok = true;
        for (const auto &[suffix, palette] : {std::pair{u"light"_s, m_light}, std::pair{u"dark"_s, m_dark}}) {
            QApplication::setPalette(palette);
            settle();
            const QString file = QDir(m_folder).filePath(name + u'-' + suffix + u".png"_s);
            ok &= window->grab().save(file);
            std::printf("%s\n", qPrintable(file));
        }
        QApplication::setPalette(m_light);
        settle();
        return ok;
    }

private:
    QString m_folder;
    QPalette m_light;
    QPalette m_dark = darkPalette();
};

// Answers the save dialog with a file in the scratch folder, as a user picking a place would.
class ScratchDialogs final : public FileDialogs
{
public:
    explicit ScratchDialogs(QString folder)
        : m_folder(std::move(folder))
    {}
    std::optional<QString> saveFileName(const SaveDialogRequest &request) override
    {
        return QDir(m_folder).filePath(request.suggestedName);
    }
    std::optional<QString> openFileName(const OpenDialogRequest &) override { return std::nullopt; }

private:
    QString m_folder;
};

bool send(VerboltApp &verbolt, ChatViewModel *chat, const QString &text)
{
    chat->setInput(text);
    chat->send(verbolt.store()->selected());
    return waitUntil([chat] { return !chat->isStreaming(); }) && (settle(), true);
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(u"Verbolt"_s);
    QApplication::setStyle(QStyleFactory::create(u"Fusion"_s));

    QCommandLineParser parser;
    parser.setApplicationDescription(u"Screenshots of Verbolt's windows against a mock provider."_s);
    parser.addHelpOption();
    parser.addOptions({{u"base-url"_s, u"The mock provider's base URL."_s, u"URL"_s},
                       {u"key"_s, u"The API key the provider accepts."_s, u"KEY"_s, u"sk-demo"_s},
                       {u"out"_s, u"Folder for the PNG files."_s, u"DIR"_s, u"."_s},
                       {u"hold"_s,
                        u"Afterwards keep the main and settings windows open this many seconds "
                        u"(for a screen reader's look at them)."_s,
                        u"S"_s, u"0"_s}});
    parser.process(app);
    if (!parser.isSet(u"base-url"_s)) {
        std::fprintf(stderr, "verbolt-screenshots: --base-url is required\n");
        return 2;
    }
    QDir().mkpath(parser.value(u"out"_s));
    Shooter shooter(parser.value(u"out"_s));
    bool ok = true;

    VerboltApp verbolt;
    MainWindow *window = verbolt.newWindow();
    window->resize(1100, 720);
    ChatViewModel *chat = static_cast<ContentView *>(window->content())->chat();
    settle(600);
    ok &= shooter.shoot(window, u"main-empty"_s);

    // The settings, as a new user fills them in.
    verbolt.showSettings();
    SettingsView *settings = verbolt.settingsView();
    settle();
    ok &= shooter.shoot(settings, u"settings-empty"_s);
    settings->addPreset(Provider::presets().last());
    settle();
    ok &= shooter.shoot(settings, u"editor-preset"_s);
    ProviderEditor *editor = settings->editor();
    editor->findChild<QLineEdit *>(u"name"_s)->setText(u"Mock provider"_s);
    editor->findChild<QLineEdit *>(u"baseURL"_s)->setText(parser.value(u"base-url"_s));
    editor->findChild<QLineEdit *>(u"apiKey"_s)->setText(parser.value(u"key"_s));
    editor->fetchModels();
    ok &= waitUntil([editor] { return !editor->isFetching(); });
    const QList<QAction *> models = editor->findChild<QToolButton *>(u"chooseModel"_s)->menu()->actions();
    if (!models.isEmpty())
        models.first()->trigger();
    editor->save();
    // Into the profile's data folder: with a scratch profile, nothing lands outside it.
    ScratchDialogs dialogs(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    settings->setFileDialogs(&dialogs);
    settings->exportConfig();
    settings->setFileDialogs(nullptr);
    settle();
    ok &= shooter.shoot(settings, u"settings"_s);
    // What `verbolt FILE` asks before importing a file.
    settings->offerImport(
        QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)).filePath(u"verbolt-config.json"_s));
    settle();
    ok &= shooter.shoot(settings->importQuestion(), u"import-question"_s);
    settings->importQuestion()->reject();
    settings->close();

    verbolt.showAbout();
    settle();
    ok &= shooter.shoot(verbolt.aboutWindow(), u"about"_s);
    verbolt.aboutWindow()->close();

    // A conversation with code and a table, streamed from the provider.
    verbolt.newChat();
    settle();
    ok &= send(verbolt, chat, u"Show me a small Python function and a table of its results."_s);
    ok &= shooter.shoot(window, u"main-conversation"_s);

    // The same conversation walked by keyboard: the reply outlined, then its first button.
    window->activateWindow();
    settle();
    if (QWidget *transcript = window->findChild<QWidget *>(u"transcript"_s)) {
        transcript->setFocus(Qt::ShortcutFocusReason);
        settle();
        ok &= shooter.shoot(window, u"main-keyboard-message"_s);
        QKeyEvent tab(QEvent::KeyPress, Qt::Key_Tab, Qt::NoModifier);
        if (QWidget *focus = QApplication::focusWidget())
            QApplication::sendEvent(focus, &tab);
        settle();
        ok &= shooter.shoot(window, u"main-keyboard-button"_s);
        if (QWidget *list = window->findChild<QWidget *>(u"conversationList"_s)) {
            list->setFocus(Qt::TabFocusReason);
            settle();
            ok &= shooter.shoot(window, u"main-keyboard-list"_s);
        }
    } else {
        ok = false;
    }

    // The same window when the provider refuses the key.
    Provider wrong = *verbolt.store()->selected();
    wrong.apiKey = u"sk-wrong"_s;
    verbolt.store()->update(wrong);
    verbolt.newChat();
    settle();
    send(verbolt, chat, u"Hello?"_s);
    ok &= shooter.shoot(window, u"main-error"_s);

    if (const int hold = parser.value(u"hold"_s).toInt(); hold > 0) {
        verbolt.showSettings();
        settle(hold * 1000);
    }
    if (!ok)
        std::fprintf(stderr, "verbolt-screenshots: some steps failed\n");
    return ok ? 0 : 1;
}
