#include "ui/commandline.h"
#include "verboltversion.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(CommandLine::Action)

class tst_CommandLine final : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_startFolder;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        for (const QString &name : {u"verbolt-config.json"_s, u"other.json"_s, u"--odd.json"_s}) {
            QFile file(m_dir.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        QVERIFY(QDir(m_dir.path()).mkdir(u"folder.json"_s));
        m_startFolder = QDir::currentPath();
        // Relative file names are taken from the folder the program was started in.
        QVERIFY(QDir::setCurrent(m_dir.path()));
    }

    void cleanupTestCase() { QDir::setCurrent(m_startFolder); }

    void parse_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<CommandLine::Action>("action");
        QTest::addColumn<bool>("newWindow");
        QTest::addColumn<QString>("configFile"); // relative to the test folder; empty for none
        QTest::addColumn<QString>("errorPart");

        using A = CommandLine::Action;
        const auto row = [](const char *name, QStringList arguments, A action, bool newWindow = true,
                            const QString &file = {}, const QString &error = {}) {
            QTest::newRow(name) << arguments << action << newWindow << file << error;
        };
        row("nothing", {}, A::Start);
        row("new window", {u"--new-window"_s}, A::Start);
        row("short help", {u"-h"_s, u"--frobnicate"_s}, A::ShowHelp);
        row("short version", {u"--new-window"_s, u"-v"_s}, A::ShowVersion);
        row("unknown option", {u"--frobnicate"_s, u"--help"_s}, A::Fail, true, {}, u"'--frobnicate'"_s);
        row("value on a flag", {u"--version=2"_s}, A::Fail, true, {}, u"'--version=2'"_s);
        row("single-dash word", {u"-new-window"_s}, A::Fail, true, {}, u"'-new-window'"_s);
        row("line break in option", {u"--a\nb"_s}, A::Fail, true, {}, u"'--a b'"_s);
        row("qt options", {u"-platform"_s, u"offscreen"_s, u"--style=fusion"_s, u"-reverse"_s, u"-session"_s, u"x"_s},
            A::Start);
        row("qt option without value", {u"-platform"_s}, A::Fail, true, {}, u"'-platform' needs a value"_s);
        row("qt option's value is not a file", {u"--platform"_s, u"offscreen"_s}, A::Start);
        row("file alone imports without a window", {u"verbolt-config.json"_s}, A::Start, false,
            u"verbolt-config.json"_s);
        row("file with new window", {u"other.json"_s, u"--new-window"_s}, A::Start, true, u"other.json"_s);
        row("file after end of options", {u"--"_s, u"--odd.json"_s}, A::Start, false, u"--odd.json"_s);
        row("new window after end of options is a file", {u"--"_s, u"--new-window"_s}, A::Fail, true, {},
            u"no such file: '--new-window'"_s);
        row("missing file", {u"gone.json"_s}, A::Fail, true, {}, u"no such file: 'gone.json'"_s);
        row("folder", {u"folder.json"_s}, A::Fail, true, {}, u"'folder.json' is a folder"_s);
        row("two files", {u"other.json"_s, u"verbolt-config.json"_s}, A::Fail, true, {}, u"not 2"_s);
    }

    void parse()
    {
        QFETCH(QStringList, arguments);
        QFETCH(CommandLine::Action, action);
        QFETCH(bool, newWindow);
        QFETCH(QString, configFile);
        QFETCH(QString, errorPart);

        arguments.prepend(u"/usr/bin/verbolt"_s);
        const CommandLine command = CommandLine::parse(arguments);
        QCOMPARE(command.action, action);
        if (action == CommandLine::Action::Fail) {
            QVERIFY2(command.error.startsWith(u"verbolt: "_s), qPrintable(command.error));
            QVERIFY2(command.error.contains(errorPart), qPrintable(command.error));
            QVERIFY(!command.error.contains(u'\n'));
            return;
        }
        QCOMPARE(command.newWindow, newWindow);
        if (configFile.isEmpty())
            QCOMPARE(command.configFile, std::nullopt);
        else
            QCOMPARE(command.configFile, std::optional<QString>(m_dir.filePath(configFile)));
    }

    // The program itself: what it prints where, and how it ends, with no display to talk to.
    void program_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("stdoutStart");
        QTest::addColumn<QString>("stderrStart");

        QTest::newRow("version") << QStringList{u"--version"_s} << 0
                                 << u"verbolt %1\n"_s.arg(QLatin1StringView(Verbolt::version)) << QString();
        QTest::newRow("help") << QStringList{u"--help"_s} << 0 << u"Usage: verbolt [OPTION]... [FILE]\n"_s << QString();
        QTest::newRow("unknown option") << QStringList{u"--frobnicate"_s} << 2 << QString()
                                        << u"verbolt: unknown option '--frobnicate'"_s;
    }

    void program()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, stdoutStart);
        QFETCH(QString, stderrStart);

        QProcess verbolt;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // Asking for X11 with no X server makes QApplication abort: none must be made here.
        for (const QString &name : {u"DISPLAY"_s, u"WAYLAND_DISPLAY"_s})
            environment.remove(name);
        environment.insert(u"QT_QPA_PLATFORM"_s, u"xcb"_s);
        verbolt.setProcessEnvironment(environment);
        verbolt.start(QStringLiteral(VERBOLT_BINARY), arguments);
        QVERIFY(verbolt.waitForFinished(60000));
        const QString out = QString::fromLocal8Bit(verbolt.readAllStandardOutput());
        const QString err = QString::fromLocal8Bit(verbolt.readAllStandardError());
        QCOMPARE(verbolt.exitStatus(), QProcess::NormalExit);
        QCOMPARE(verbolt.exitCode(), exitCode);
        if (stdoutStart.isEmpty())
            QCOMPARE(out, QString());
        else
            QVERIFY2(out.startsWith(stdoutStart), qPrintable(out));
        if (stderrStart.isEmpty()) {
            QCOMPARE(err, QString());
        } else {
            QVERIFY2(err.startsWith(stderrStart), qPrintable(err));
            QCOMPARE(err.count(u'\n'), 1);
            QVERIFY(err.endsWith(u'\n'));
        }
    }
};

QTEST_GUILESS_MAIN(tst_CommandLine)
#include "tst_commandline.moc"
