#include "ui/commandline.h"

#include "verboltversion.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

// The options QGuiApplication and QApplication take out of the arguments themselves, with one
// dash or two. Those that take a value also accept it after '=' (-style=fusion).
constexpr QLatin1StringView qtValueOptions[] = {"platform"_L1,      "platformpluginpath"_L1,
                                                "platformtheme"_L1, "plugin"_L1,
                                                "qmljsdebugger"_L1, "qwindowgeometry"_L1,
                                                "qwindowicon"_L1,   "qwindowtitle"_L1,
                                                "session"_L1,       "display"_L1,
                                                "geometry"_L1,      "title"_L1,
                                                "name"_L1,          "style"_L1,
                                                "stylesheet"_L1};
constexpr QLatin1StringView qtFlagOptions[] = {"reverse"_L1, "widgetcount"_L1, "nograb"_L1, "dograb"_L1, "sync"_L1};

enum class QtOption { None, Flag, ValueAttached, ValueFollows };

QtOption qtOption(QStringView argument)
{
    QStringView name = argument.sliced(1);
    if (name.startsWith(u'-'))
        name = name.sliced(1);
    const qsizetype equals = name.indexOf(u'=');
    const QStringView bare = equals < 0 ? name : name.first(equals);
    for (QLatin1StringView option : qtValueOptions) {
        if (bare == option)
            return equals < 0 ? QtOption::ValueFollows : QtOption::ValueAttached;
    }
    for (QLatin1StringView option : qtFlagOptions) {
        if (name == option)
            return QtOption::Flag;
    }
    return QtOption::None;
}

CommandLine failure(const QString &message)
{
    CommandLine result;
    result.action = CommandLine::Action::Fail;
    result.error = u"verbolt: "_s + message;
    // The message quotes what the user typed, which may hold a line break of its own.
    result.error.replace(u'\n', u' ');
    return result;
}

} // namespace

CommandLine CommandLine::parse(const QStringList &arguments)
{
    CommandLine result;
    QStringList files;
    bool optionsEnded = false;
    bool windowAskedFor = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (optionsEnded || argument.size() < 2 || !argument.startsWith(u'-')) {
            files.append(argument);
            continue;
        }
        if (argument == "--"_L1) {
            optionsEnded = true;
        } else if (argument == "--help"_L1 || argument == "-h"_L1) {
            result.action = Action::ShowHelp;
            return result;
        } else if (argument == "--version"_L1 || argument == "-v"_L1) {
            result.action = Action::ShowVersion;
            return result;
        } else if (argument == "--new-window"_L1) {
            windowAskedFor = true;
        } else {
            switch (qtOption(argument)) {
            case QtOption::None:
                return failure(u"unknown option '%1' (see 'verbolt --help')"_s.arg(argument));
            case QtOption::ValueFollows:
                if (++i == arguments.size())
                    return failure(u"option '%1' needs a value"_s.arg(argument));
                break;
            case QtOption::Flag:
            case QtOption::ValueAttached:
                break;
            }
        }
    }

    if (files.size() > 1)
        return failure(u"one configuration file at a time, not %1"_s.arg(files.size()));
    if (!files.isEmpty()) {
        const QFileInfo file(files.first());
        if (!file.exists())
            return failure(u"no such file: '%1'"_s.arg(files.first()));
        if (file.isDir())
            return failure(u"'%1' is a folder, not a configuration file"_s.arg(files.first()));
        result.configFile = file.absoluteFilePath();
        // Naming a file asks for its import; another window comes only when asked for as well.
        result.newWindow = windowAskedFor;
    }
    return result;
}

QString CommandLine::helpText()
{
    return uR"(Usage: verbolt [OPTION]... [FILE]
Chat with language-model services using your own API keys.

  -h, --help        print this help and exit
  -v, --version     print the version and exit
      --new-window  open another main window; this is also what a start without
                    options does while Verbolt already runs for this user
  FILE              a configuration file saved with "Export Config...": the
                    settings window opens and asks before importing its providers
                    and conversations

Verbolt runs once per user and profile. A later start hands its request to the
running program and exits, so two programs never write the same files.
Qt's own options (-platform, -style, ...) are accepted as well.

Exit status: 0 on success, 2 when the command line cannot be understood.
)"_s;
}

QString CommandLine::versionText()
{
    return u"verbolt %1\n"_s.arg(QLatin1StringView(Verbolt::version));
}
