#pragma once

#include <QProcess>
#include <QTest>

// What one run of a command-line tool left: its exit code (-1 when it crashed or did not end in
// time) and both of its outputs.
struct ToolRun
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs program with args in this process's environment, input on its standard input, to its end.
// Waits with the event loop turning, so that loopback servers of the test itself keep serving the
// tool; a tool still running after a minute is killed with its QProcess.
inline ToolRun runTool(const QString &program, const QStringList &args, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, args);
    process.write(input);
    process.closeWriteChannel();
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 60000) ||
        process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}
