// verbolt: the desktop program. Starting it while it already runs on the same profile opens a new
// window in the running one instead.
#include "storage/coredumps.h"
#include "ui/mainwindow.h"
#include "ui/verboltapp.h"

#include <QApplication>
#include <QIcon>

int main(int argc, char *argv[])
{
    disableCoreDumps();

    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Verbolt"));
    QApplication::setApplicationName(QStringLiteral("Verbolt"));
    QApplication::setApplicationVersion(QStringLiteral(VERBOLT_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral(VERBOLT_APP_ID));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/" VERBOLT_APP_ID ".svg")));
    // The settings window alone does not keep the program running; VerboltApp says when to end.
    QApplication::setQuitOnLastWindowClosed(false);

    // Before the stores are made: a second process must not write the files of the first.
    const QString server = VerboltApp::instanceServerName();
    if (VerboltApp::askRunningInstanceForWindow(server))
        return 0;

    VerboltApp verbolt;
    QObject::connect(&verbolt, &VerboltApp::lastMainWindowClosed, &app, &QCoreApplication::quit);
    verbolt.acceptOtherStarts(server);
    verbolt.newWindow();
    return app.exec();
}
