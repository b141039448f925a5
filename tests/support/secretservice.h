#pragma once

// A desktop keyring of the test's own: a private session bus with gnome-keyring-daemon's Secret
// Service on it, unlocked, its keyrings in a temporary folder. Nothing of the user's session is
// touched. Must be started before the first keyring request of the process, since the bus
// connection is made once per process.

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

namespace StorageTest {

using namespace Qt::StringLiterals;

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
        const QString busDaemon = QStandardPaths::findExecutable(u"dbus-daemon"_s);
        const QString keyringDaemon = QStandardPaths::findExecutable(u"gnome-keyring-daemon"_s);
        if (busDaemon.isEmpty() || keyringDaemon.isEmpty())
            return u"dbus-daemon or gnome-keyring-daemon is not installed (make test installs both)"_s;

        // No service folders: nothing on this bus starts unless the test starts it.
        QFile config(m_dir.filePath(u"bus.conf"_s));
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
        m_bus.start(busDaemon, {u"--config-file="_s + config.fileName(), u"--print-address=1"_s, u"--nofork"_s});
        if (!m_bus.waitForStarted(5000) || !m_bus.waitForReadyRead(5000))
            return u"dbus-daemon did not start: "_s + m_bus.errorString();
        const QByteArray address = m_bus.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);

        const QString home = m_dir.filePath(u"home"_s);
        QDir().mkpath(home + u"/.local/share"_s);
        QDir().mkpath(m_dir.filePath(u"run"_s));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"HOME"_s, home);
        env.insert(u"XDG_DATA_HOME"_s, home + u"/.local/share"_s);
        env.insert(u"XDG_RUNTIME_DIR"_s, m_dir.filePath(u"run"_s));
        m_keyring.setProcessEnvironment(env);
        m_keyring.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_keyring.start(keyringDaemon, {u"--foreground"_s, u"--components=secrets"_s, u"--unlock"_s});
        if (!m_keyring.waitForStarted(5000))
            return u"gnome-keyring-daemon did not start: "_s + m_keyring.errorString();
        // --unlock reads the new login keyring's password up to the end of its input.
        m_keyring.write("test-password");
        m_keyring.waitForBytesWritten(5000);
        m_keyring.closeWriteChannel();

        // Ready once the Secret Service owns its name on the bus.
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 20000) {
            if (QDBusConnection::sessionBus().interface()->isServiceRegistered(u"org.freedesktop.secrets"_s))
                return {};
            if (m_keyring.state() == QProcess::NotRunning)
                return u"gnome-keyring-daemon stopped at start"_s;
            QThread::msleep(50);
        }
        return u"the Secret Service did not appear on the bus"_s;
    }

private:
    QTemporaryDir m_dir;
    QProcess m_bus;
    QProcess m_keyring;
};

} // namespace StorageTest
