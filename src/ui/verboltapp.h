#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <memory>
#include <optional>

class AboutDialog;
class ConversationStore;
class MainWindow;
class ProviderStore;
class QDialog;
class QLocalServer;
class SettingsView;

// The program: the one provider store and the one conversation store, any number of main windows
// sharing them, and the one settings window. A later start of the program on the same profile
// hands over to this one (see handOverToRunningInstance) so that two processes never write the
// same files.
class VerboltApp final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(VerboltApp)

public:
    static constexpr int settingsWidth = 580;
    static constexpr int settingsHeight = 520;

    // Loads both stores from the current profile.
    explicit VerboltApp(QObject *parent = nullptr);
    ~VerboltApp() override;

    ProviderStore *store() const { return m_store.get(); }
    ConversationStore *chats() const { return m_chats.get(); }

    // Opens and shows another main window on the two stores.
    MainWindow *newWindow();
    QList<MainWindow *> mainWindows() const;
    // Starts a conversation for the selected provider; every main window switches to it.
    void newChat();
    // Shows the settings window, making it on first use and raising it when already open.
    void showSettings();
    // Shows the About window, making it on first use and raising it when already open.
    void showAbout();
    AboutDialog *aboutWindow() const;
    // The settings window's content (its window() is the settings window), or null before the
    // first showSettings().
    SettingsView *settingsView() const;
    // Shows the settings window asking whether to import the configuration file at path.
    void offerImport(const QString &path);
    // Ends and saves every running reply, waits until the history is on disk, then closes every
    // window; the last main window closing ends the program (lastMainWindowClosed() is emitted also
    // when no main window was open).
    void quit();

    // What the kept-aside bar says about files found unreadable at start; empty when all was read.
    QStringList keptAsideNotices() const;

    // The local socket that names this profile's running program: one per user and profile, in
    // the runtime folder.
    static QString instanceServerName();
    // Hands a start's request to the program running on serverName: a new main window when
    // newWindow, and the import question for configFile (an absolute path) when given. True when
    // a program took the request; false when none runs there, and then nothing was asked.
    static bool handOverToRunningInstance(const QString &serverName, bool newWindow,
                                          const std::optional<QString> &configFile);
    // Answers later starts on serverName with what they ask for. False when it cannot listen.
    bool acceptOtherStarts(const QString &serverName);

signals:
    // Emitted when the last main window has closed; the program should end.
    void lastMainWindowClosed();

private:
    void handleMainWindowGone(QObject *window);
    bool handleStartRequest(const QByteArray &line);

    std::unique_ptr<ProviderStore> m_store;
    std::unique_ptr<ConversationStore> m_chats;
    QList<QPointer<MainWindow>> m_windows;
    QPointer<QDialog> m_settingsWindow;
    QPointer<SettingsView> m_settings;
    QPointer<AboutDialog> m_about;
    QLocalServer *m_server = nullptr;
    bool m_keptAsideDismissed = false;
};
