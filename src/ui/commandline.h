#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What one start of the program was asked to do, read from its arguments before any window or
// store exists, so that --help, --version and mistakes are answered without a display.
//
// Qt's own options (-platform, -style, -session, …) are let through untouched for QApplication.
struct CommandLine
{
    enum class Action {
        Start,       // open the program, or hand the request to the one already running
        ShowHelp,    // print helpText() on standard output and end with 0
        ShowVersion, // print versionText() on standard output and end with 0
        Fail,        // print error on standard error and end with usageExitCode
    };

    static constexpr int usageExitCode = 2;

    Action action = Action::Start;
    // True unless only a configuration file was named: a start then imports into the running
    // program without opening another window there.
    bool newWindow = true;
    // The absolute path of a configuration archive to offer for import.
    std::optional<QString> configFile;
    // One line without a line break, naming the program, when action is Fail.
    QString error;

    // arguments as QCoreApplication::arguments() would hold them, the program's own name first.
    // Options are read in order: the first of an unknown option, --help and --version decides.
    // A named file must exist and not be a folder; relative paths are taken from the current
    // folder.
    static CommandLine parse(const QStringList &arguments);

    static QString helpText();
    static QString versionText();
};
