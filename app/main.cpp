// verbolt: the desktop program. Starting it while it already runs on the same profile hands the
// request (another window, a file to import) to the running one instead.
#include "storage/coredumps.h"
#include "storage/keyring.h"
#include "storage/providerstore.h"
#include "ui/commandline.h"
#include "ui/mainwindow.h"
#include "ui/quitsignals.h"
#include "ui/verboltapp.h"
#include "verboltversion.h"

#include <QApplication>
#include <QIcon>

#include <cstdio>

namespace {

QStringList argumentsOf(int argc, char *argv[])
{
    QStringList arguments;
    arguments.reserve(argc);
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

} // namespace

int main(int argc, char *argv[])
{
    disableCoreDumps();

    // Read before QApplication exists: --help, --version and mistakes need no display.
    const CommandLine command = CommandLine::parse(argumentsOf(argc, argv));
    switch (command.action) {
    case CommandLine::Action::ShowHelp:
        std::fputs(CommandLine::helpText().toLocal8Bit().constData(), stdout);
        return 0;
    case CommandLine::Action::ShowVersion:
        std::fputs(CommandLine::versionText().toLocal8Bit().constData(), stdout);
        return 0;
    case CommandLine::Action::Fail:
        std::fprintf(stderr, "%s\n", command.error.toLocal8Bit().constData());
        return CommandLine::usageExitCode;
    case CommandLine::Action::Start:
        break;
    }

    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Verbolt"));
    QApplication::setApplicationName(QStringLiteral("Verbolt"));
    QApplication::setApplicationVersion(QString::fromLatin1(Verbolt::version));
    QGuiApplication::setDesktopFileName(QStringLiteral(VERBOLT_APP_ID));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/" VERBOLT_APP_ID ".svg")));
    // The settings window alone does not keep the program running; VerboltApp says when to end.
    QApplication::setQuitOnLastWindowClosed(false);

    // Before the stores are made: a second process must not write the files of the first.
    const QString server = VerboltApp::instanceServerName();
    if (VerboltApp::handOverToRunningInstance(server, command.newWindow, command.configFile))
        return 0;

    VerboltApp verbolt;
    QObject::connect(&verbolt, &VerboltApp::lastMainWindowClosed, &app, &QCoreApplication::quit);
    verbolt.acceptOtherStarts(server);
    // A shutdown, a logout or Ctrl+C in a terminal quits the way Ctrl+Q does, saving running replies.
    QuitSignals quitSignals;
    QObject::connect(&quitSignals, &QuitSignals::quitRequested, &verbolt, &VerboltApp::quit);
    // The first start always has a window: the settings window alone would not keep it running.
    verbolt.newWindow();
    // After the window: the keyring may be slow to answer, and the keys arrive in the background.
    verbolt.store()->useKeyring(new Keyring);
    if (command.configFile)
        verbolt.offerImport(*command.configFile);
    return app.exec();
}
