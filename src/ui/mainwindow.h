#pragma once

#include <QMainWindow>
#include <QStringList>

class QAction;
class QFrame;
class QLabel;

// One main window: the menu bar (File: New Chat, Settings…, Quit; Window: New Window; Help:
// About Verbolt), a bar
// that tells the user where an unreadable file was kept aside, and the chat content below it.
// The window only asks; the application decides what each request does.
//
// The window deletes itself when closed.
class MainWindow final : public QMainWindow
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MainWindow)

public:
    static constexpr int minimumWidth = 760;
    static constexpr int minimumHeight = 480;

    // Takes ownership of content, which fills the window under the kept-aside bar.
    explicit MainWindow(QWidget *content, QWidget *parent = nullptr);

    QWidget *content() const { return m_content; }

    // Shows the kept-aside bar with one line per notice (plain text); an empty list hides it.
    void setKeptAsideNotices(const QStringList &notices);
    QStringList keptAsideNotices() const { return m_notices; }

    QAction *newChatAction() const { return m_newChat; }
    QAction *settingsAction() const { return m_settings; }
    QAction *quitAction() const { return m_quit; }
    QAction *newWindowAction() const { return m_newWindow; }
    QAction *aboutAction() const { return m_about; }

signals:
    // Emitted when the user asks for a new conversation ("New Chat", Ctrl+N).
    void newChatRequested();
    // Emitted when the user asks for the settings window ("Settings…", Ctrl+,).
    void settingsRequested();
    // Emitted when the user asks for another main window ("New Window", Ctrl+Shift+N).
    void newWindowRequested();
    // Emitted when the user asks for the About window ("About Verbolt").
    void aboutRequested();
    // Emitted when the user asks to quit ("Quit", Ctrl+Q).
    void quitRequested();
    // Emitted when the user dismisses the kept-aside bar.
    void keptAsideDismissed();

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyColours();

    QWidget *m_content;
    QFrame *m_keptAsideBar;
    QLabel *m_keptAsideText;
    QStringList m_notices;
    QAction *m_newChat;
    QAction *m_settings;
    QAction *m_quit;
    QAction *m_newWindow;
    QAction *m_about;
};
