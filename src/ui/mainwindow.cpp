#include "ui/mainwindow.h"

#include "ui/theme.h"

#include <QAction>
#include <QEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenuBar>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

MainWindow::MainWindow(QWidget *content, QWidget *parent)
    : QMainWindow(parent)
    , m_content(content)
{
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(u"Verbolt"_s);
    setMinimumSize(minimumWidth, minimumHeight);
    resize(1000, 700);

    QMenu *file = menuBar()->addMenu(u"&File"_s);
    m_newChat = file->addAction(u"New Chat"_s, this, &MainWindow::newChatRequested);
    m_newChat->setShortcut(QKeySequence::New);
    file->addSeparator();
    m_settings = file->addAction(u"Settings…"_s, this, &MainWindow::settingsRequested);
    // QKeySequence::Preferences has no binding on X11; Ctrl+, is what the window's texts promise.
    m_settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    m_settings->setMenuRole(QAction::PreferencesRole);
    file->addSeparator();
    m_quit = file->addAction(u"Quit"_s, this, &MainWindow::quitRequested);
    m_quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    m_quit->setMenuRole(QAction::QuitRole);
    QMenu *window = menuBar()->addMenu(u"&Window"_s);
    m_newWindow = window->addAction(u"New Window"_s, this, &MainWindow::newWindowRequested);
    m_newWindow->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_N));
    QMenu *help = menuBar()->addMenu(u"&Help"_s);
    m_about = help->addAction(u"About Verbolt"_s, this, &MainWindow::aboutRequested);
    m_about->setMenuRole(QAction::AboutRole);
    // The shortcuts work wherever the focus is in this window, the composer included.
    for (QAction *action : {m_newChat, m_settings, m_quit, m_newWindow})
        action->setShortcutContext(Qt::WindowShortcut);

    m_keptAsideBar = new QFrame(this);
    m_keptAsideBar->setObjectName(u"keptAsideBar"_s);
    m_keptAsideBar->setAutoFillBackground(true);
    auto *barLayout = new QHBoxLayout(m_keptAsideBar);
    barLayout->setContentsMargins(12, 8, 8, 8);
    m_keptAsideText = new QLabel(m_keptAsideBar);
    m_keptAsideText->setTextFormat(Qt::PlainText);
    m_keptAsideText->setWordWrap(true);
    // The path is there to be copied into a file manager or a terminal.
    m_keptAsideText->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    auto *dismiss = new QPushButton(u"Dismiss"_s, m_keptAsideBar);
    dismiss->setObjectName(u"dismissKeptAside"_s);
    barLayout->addWidget(m_keptAsideText, 1);
    barLayout->addWidget(dismiss, 0, Qt::AlignTop);
    connect(dismiss, &QPushButton::clicked, this, [this] {
        setKeptAsideNotices({});
        emit keptAsideDismissed();
    });
    m_keptAsideBar->hide();

    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_keptAsideBar);
    content->setParent(central);
    layout->addWidget(content, 1);
    setCentralWidget(central);
    setFocusProxy(content);
    applyColours();
}

void MainWindow::setKeptAsideNotices(const QStringList &notices)
{
    m_notices = notices;
    m_keptAsideText->setText(notices.join(u'\n'));
    m_keptAsideText->setAccessibleName(notices.join(u' '));
    m_keptAsideBar->setVisible(!notices.isEmpty());
}

void MainWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
    QMainWindow::changeEvent(event);
}

void MainWindow::applyColours()
{
    // A warning tint over the window colour: readable in light and dark alike.
    const QPalette base = palette();
    QPalette bar = m_keptAsideBar->palette();
    const QColor tint = Theme::withOpacity(Theme::color(Theme::Color::Orange, base), 0.22);
    const QColor window = base.color(QPalette::Window);
    const qreal a = tint.alphaF();
    bar.setColor(QPalette::Window, QColor::fromRgbF(tint.redF() * a + window.redF() * (1 - a),
                                                    tint.greenF() * a + window.greenF() * (1 - a),
                                                    tint.blueF() * a + window.blueF() * (1 - a)));
    m_keptAsideBar->setPalette(bar);
}
