#include "ui/verboltapp.h"

#include "chat/chatviewmodel.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "ui/aboutdialog.h"
#include "ui/contentview.h"
#include "ui/mainwindow.h"
#include "ui/settingsview.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDialog>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSettings>
#include <QStandardPaths>
#include <QUrl>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

// A later start speaks one line per request and reads "ok" for each one done:
//   new-window
//   import <the file's URL, percent-encoded, so any file name fits on one line>
constexpr QByteArrayView newWindowRequest = "new-window\n";
constexpr QByteArrayView importRequest = "import ";
constexpr QByteArrayView requestDone = "ok\n";
constexpr int handOverTimeoutMs = 3000;

} // namespace

VerboltApp::VerboltApp(QObject *parent)
    : QObject(parent)
    , m_store(std::make_unique<ProviderStore>())
    , m_chats(std::make_unique<ConversationStore>())
{}

VerboltApp::~VerboltApp()
{
    // The windows read the stores until they are gone.
    for (const QPointer<MainWindow> &window : std::as_const(m_windows)) {
        if (window) {
            disconnect(window, nullptr, this, nullptr);
            delete window;
        }
    }
    delete m_settingsWindow;
    delete m_about;
}

MainWindow *VerboltApp::newWindow()
{
    auto *content = new ContentView(m_store.get(), m_chats.get());
    auto *window = new MainWindow(content);
    connect(content, &ContentView::settingsRequested, this, &VerboltApp::showSettings);
    connect(window, &MainWindow::settingsRequested, this, &VerboltApp::showSettings);
    connect(window, &MainWindow::newChatRequested, content, [this, content] {
        newChat();
        // New Chat may keep the selection (an empty newest chat), which moves no focus by itself.
        content->focusComposer();
    });
    connect(window, &MainWindow::newWindowRequested, this, &VerboltApp::newWindow);
    connect(window, &MainWindow::quitRequested, this, &VerboltApp::quit);
    connect(window, &MainWindow::aboutRequested, this, &VerboltApp::showAbout);
    connect(window, &MainWindow::keptAsideDismissed, this, [this] {
        m_keptAsideDismissed = true;
        for (MainWindow *other : mainWindows())
            other->setKeptAsideNotices({});
    });
    connect(window, &QObject::destroyed, this, &VerboltApp::handleMainWindowGone);
    window->setKeptAsideNotices(keptAsideNotices());

    // Each further window steps down and right from the last one, so none hides another.
    const QList<MainWindow *> open = mainWindows();
    if (!open.isEmpty())
        window->move(open.last()->pos() + QPoint(28, 28));
    m_windows.append(window);
    window->show();
    return window;
}

QList<MainWindow *> VerboltApp::mainWindows() const
{
    QList<MainWindow *> open;
    for (const QPointer<MainWindow> &window : m_windows) {
        if (window)
            open.append(window);
    }
    return open;
}

void VerboltApp::newChat()
{
    m_chats->startChat(m_store->selectedID());
}

void VerboltApp::showSettings()
{
    if (!m_settingsWindow) {
        // A dialog, not a bare widget: screen readers announce it as a window of its own, and
        // Escape closes it.
        m_settingsWindow = new QDialog;
        m_settingsWindow->setObjectName(u"settingsWindow"_s);
        m_settingsWindow->setWindowTitle(u"Settings"_s);
        m_settingsWindow->setFixedSize(settingsWidth, settingsHeight);
        // The settings window alone does not keep the program running.
        m_settingsWindow->setAttribute(Qt::WA_QuitOnClose, false);
        auto *layout = new QVBoxLayout(m_settingsWindow);
        layout->setContentsMargins(0, 0, 0, 0);
        m_settings = new SettingsView(m_store.get(), m_chats.get(), m_settingsWindow);
        layout->addWidget(m_settings);
    }
    m_settingsWindow->show();
    m_settingsWindow->raise();
    m_settingsWindow->activateWindow();
}

void VerboltApp::showAbout()
{
    if (!m_about) {
        m_about = new AboutDialog;
        // Like the settings window, it does not keep the program running on its own.
        m_about->setAttribute(Qt::WA_QuitOnClose, false);
    }
    m_about->show();
    m_about->raise();
    m_about->activateWindow();
}

AboutDialog *VerboltApp::aboutWindow() const
{
    return m_about;
}

SettingsView *VerboltApp::settingsView() const
{
    return m_settings;
}

void VerboltApp::offerImport(const QString &path)
{
    showSettings();
    m_settings->offerImport(path);
}

void VerboltApp::quit()
{
    // Every reply still streaming ends as a Stop and is saved, and the history is on disk, before
    // any window goes: a quit must not cost the user what already arrived.
    const QList<MainWindow *> windows = mainWindows();
    for (MainWindow *window : windows) {
        if (auto *content = qobject_cast<ContentView *>(window->content()))
            content->chat()->finishReply();
    }
    m_chats->waitForSaved();
    m_store->waitForSaved();
    if (m_about)
        m_about->close();
    if (m_settingsWindow)
        m_settingsWindow->close();
    for (MainWindow *window : windows)
        window->close();
    if (windows.isEmpty())
        emit lastMainWindowClosed();
}

QStringList VerboltApp::keptAsideNotices() const
{
    QStringList notices;
    if (m_keptAsideDismissed)
        return notices;
    if (const std::optional<QString> path = m_chats->keptAsidePath()) {
        notices.append(u"Your chat history could not be read, so Verbolt started with an empty list. "
                       u"The unreadable file was kept unchanged at %1."_s.arg(QDir::toNativeSeparators(*path)));
    }
    if (const std::optional<QString> key = m_store->keptAsideKey()) {
        notices.append(u"Your saved providers could not be read, so Verbolt started without them. "
                       u"They were kept unchanged under the key “%1” in %2."_s.arg(
                           *key, QDir::toNativeSeparators(m_store->settingsFileName())));
    }
    return notices;
}

void VerboltApp::handleMainWindowGone(QObject *window)
{
    m_windows.removeIf([window](const QPointer<MainWindow> &w) { return !w || w == window; });
    if (m_windows.isEmpty()) {
        if (m_about)
            m_about->close();
        if (m_settingsWindow)
            m_settingsWindow->close();
        emit lastMainWindowClosed();
    }
}

QString VerboltApp::instanceServerName()
{
    // One program per profile: the files it writes decide which program a start belongs to, so a
    // scratch profile (other XDG folders) runs beside the user's own.
    const QString profile =
        ConversationStore::defaultFilePath() + u'\n' + QSettings(u"Verbolt"_s, u"Verbolt"_s).fileName();
    const QByteArray digest = QCryptographicHash::hash(profile.toUtf8(), QCryptographicHash::Sha256).toHex().left(16);
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    return folder + u"/verbolt-"_s + QString::fromLatin1(digest) + u".socket"_s;
}

bool VerboltApp::handOverToRunningInstance(const QString &serverName, bool newWindow,
                                           const std::optional<QString> &configFile)
{
    QLocalSocket socket;
    socket.connectToServer(serverName);
    if (!socket.waitForConnected(handOverTimeoutMs))
        return false;
    QByteArray requests;
    if (newWindow)
        requests.append(newWindowRequest);
    if (configFile)
        requests.append(importRequest).append(QUrl::fromLocalFile(*configFile).toEncoded()).append('\n');
    socket.write(requests);
    if (!socket.waitForBytesWritten(handOverTimeoutMs))
        return false;
    // The answers say the windows are there; a program too busy to answer soon still has the
    // requests.
    const qsizetype expected = requests.count('\n');
    for (qsizetype answered = 0; answered < expected;) {
        if (!socket.canReadLine() && !socket.waitForReadyRead(handOverTimeoutMs))
            break;
        while (socket.canReadLine()) {
            socket.readLine();
            ++answered;
        }
    }
    return true;
}

bool VerboltApp::handleStartRequest(const QByteArray &line)
{
    if (line == newWindowRequest.toByteArray()) {
        MainWindow *window = newWindow();
        window->raise();
        window->activateWindow();
        return true;
    }
    if (line.startsWith(importRequest) && line.endsWith('\n')) {
        const QUrl file = QUrl::fromEncoded(line.sliced(importRequest.size()).chopped(1), QUrl::StrictMode);
        if (!file.isValid() || !file.isLocalFile())
            return false;
        offerImport(file.toLocalFile());
        return true;
    }
    return false;
}

bool VerboltApp::acceptOtherStarts(const QString &serverName)
{
    if (!m_server) {
        m_server = new QLocalServer(this);
        m_server->setSocketOptions(QLocalServer::UserAccessOption);
        connect(m_server, &QLocalServer::newConnection, this, [this] {
            while (QLocalSocket *socket = m_server->nextPendingConnection()) {
                connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
                    while (socket->canReadLine()) {
                        if (!handleStartRequest(socket->readLine())) {
                            socket->disconnectFromServer();
                            return;
                        }
                        socket->write(requestDone.data(), requestDone.size());
                    }
                });
            }
        });
    }
    if (m_server->listen(serverName))
        return true;
    // Nobody answered on this name before we got here, so the socket file is left over from a
    // program that ended without removing it.
    QLocalServer::removeServer(serverName);
    return m_server->listen(serverName);
}
