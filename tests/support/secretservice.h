#pragma once

// A desktop keyring of the test's own: a private session bus with gnome-keyring-daemon's Secret
// Service on it, unlocked, its keyrings in a temporary folder. Nothing of the user's session is
// touched. Must be started before the first keyring request of the process, since the bus
// connection is made once per process.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

namespace StorageTest {

class SecretService
{
public:
    ~SecretService()
    {
        for (QProcess *process : {&m_keyring, &m_bus}) {
            process->kill();
            process->waitForFinished(5000);
        }
    }

    // Empty when the keyring runs, otherwise why it could not be started.
    QString start()
    {
        const QString busDaemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        const QString keyringDaemon = QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon"));
        if (busDaemon.isEmpty() || keyringDaemon.isEmpty())
            return QStringLiteral("dbus-daemon or gnome-keyring-daemon is not installed (make test installs both)");

        // No service folders: nothing on this bus starts unless the test starts it.
        QFile config(m_dir.filePath(QStringLiteral("bus.conf")));
        if (!config.open(QIODevice::WriteOnly))
            return config.errorString();
        config.write(
            QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
                           "<busconfig><type>session</type><listen>unix:dir=%1</listen>"
                           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                           "</policy></busconfig>")
                .arg(m_dir.path())
                .toUtf8());
        config.close();
        m_bus.start(busDaemon, {QStringLiteral("--config-file=") + config.fileName(),
                                QStringLiteral("--print-address=1"), QStringLiteral("--nofork")});
        if (!m_bus.waitForStarted(5000) || !m_bus.waitForReadyRead(5000))
            return QStringLiteral("dbus-daemon did not start: ") + m_bus.errorString();
        const QByteArray address = m_bus.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);

        const QString home = m_dir.filePath(QStringLiteral("home"));
        QDir().mkpath(home + QStringLiteral("/.local/share"));
        QDir().mkpath(m_dir.filePath(QStringLiteral("run")));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home);
        env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_dir.filePath(QStringLiteral("run")));
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromLatin1(address));
        m_keyring.setProcessEnvironment(env);
        m_keyring.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_keyring.start(keyringDaemon, {QStringLiteral("--foreground"), QStringLiteral("--components=secrets"),
                                        QStringLiteral("--unlock")});
        if (!m_keyring.waitForStarted(5000))
            return QStringLiteral("gnome-keyring-daemon did not start: ") + m_keyring.errorString();
        // --unlock reads the new login keyring's password up to the end of its input.
        m_keyring.write("test-password");
        m_keyring.waitForBytesWritten(5000);
        m_keyring.closeWriteChannel();

        // Ready once the Secret Service owns its name on the bus.
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 20000) {
            QProcess ask;
            ask.setProcessEnvironment(env);
            ask.start(QStringLiteral("dbus-send"), {QStringLiteral("--session"), QStringLiteral("--print-reply"),
                                                    QStringLiteral("--dest=org.freedesktop.DBus"), QStringLiteral("/"),
                                                    QStringLiteral("org.freedesktop.DBus.NameHasOwner"),
                                                    QStringLiteral("string:org.freedesktop.secrets")});
            if (!ask.waitForFinished(5000))
                return QStringLiteral("dbus-send did not answer");
            if (ask.readAllStandardOutput().contains("boolean true"))
                return {};
            if (m_keyring.state() == QProcess::NotRunning)
                return QStringLiteral("gnome-keyring-daemon stopped at start");
            QThread::msleep(50);
        }
        return QStringLiteral("the Secret Service did not appear on the bus");
    }

private:
    QTemporaryDir m_dir;
    QProcess m_bus;
    QProcess m_keyring;
};

} // namespace StorageTest
