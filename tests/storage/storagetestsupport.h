#pragma once

// Helpers shared by the storage tests: a private profile in temporary XDG folders, scripted
// dialogs, and a way to meet a read-only folder even when the tests run as root.

#include "model/conversation.h"
#include "model/jsoncoding.h"
#include "model/provider.h"
#include "storage/filedialogs.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QTemporaryDir>
#include <QUuid>

#include <optional>
#include <unistd.h>

namespace StorageTest {

// Points XDG_CONFIG_HOME and XDG_DATA_HOME into a fresh temporary folder. Must run before the
// first QSettings or QStandardPaths use of the process (QSettings caches its paths).
class Profile
{
public:
    Profile()
    {
        m_dir.setAutoRemove(true);
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(dataHome()));
        QDir().mkpath(configHome());
        QDir().mkpath(dataHome());
    }
    bool isValid() const { return m_dir.isValid(); }
    QString root() const { return m_dir.path(); }
    QString configHome() const { return m_dir.path() + QStringLiteral("/config"); }
    QString dataHome() const { return m_dir.path() + QStringLiteral("/data"); }
    QString conversationsFile() const { return dataHome() + QStringLiteral("/Verbolt/conversations.json"); }

private:
    QTemporaryDir m_dir;
};

// Answers dialogs from a script and records what they were asked to show.
class ScriptedDialogs final : public FileDialogs
{
public:
    std::optional<QString> answer;
    QList<SaveDialogRequest> saves;
    QList<OpenDialogRequest> opens;

    std::optional<QString> saveFileName(const SaveDialogRequest &request) override
    {
        saves.append(request);
        return answer;
    }
    std::optional<QString> openFileName(const OpenDialogRequest &request) override
    {
        opens.append(request);
        return answer;
    }
};

// Makes a folder read-only for the scope. Root ignores folder permissions, so when the tests run
// as root the effective user becomes "nobody" for the scope as well, which makes the permissions
// bite as they would for a normal user.
class ReadOnlyFolder
{
public:
    // The folders from folder's parent up to boundary are made passable for "nobody" meanwhile.
    ReadOnlyFolder(const QString &folder, const QString &boundary)
        : m_folder(folder)
    {
        m_permissions = QFileInfo(folder).permissions();
        QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::ExeOwner | QFileDevice::ReadOther |
                                          QFileDevice::ExeOther | QFileDevice::ReadGroup | QFileDevice::ExeGroup);
        if (geteuid() == 0) {
            const QString top = QDir(boundary).absolutePath();
            for (QDir dir(QFileInfo(folder).absolutePath()); dir.absolutePath().startsWith(top); dir.cdUp()) {
                m_opened.append({dir.absolutePath(), QFileInfo(dir.absolutePath()).permissions()});
                if (dir.absolutePath() == top)
                    break;
            }
            for (const auto &[path, permissions] : std::as_const(m_opened))
                QFile::setPermissions(path, permissions | QFileDevice::ExeOther);
            m_droppedRoot = seteuid(65534) == 0;
        }
    }
    ~ReadOnlyFolder()
    {
        if (m_droppedRoot) [[maybe_unused]]
            const int restored = seteuid(0);
        for (const auto &[path, permissions] : std::as_const(m_opened))
            QFile::setPermissions(path, permissions);
        QFile::setPermissions(m_folder, m_permissions);
    }
    ReadOnlyFolder(const ReadOnlyFolder &) = delete;
    ReadOnlyFolder &operator=(const ReadOnlyFolder &) = delete;

    // False when nothing can make the folder read-only here (root without the right to change user).
    bool isEffective() const { return geteuid() != 0; }

private:
    QString m_folder;
    QFileDevice::Permissions m_permissions;
    QList<std::pair<QString, QFileDevice::Permissions>> m_opened;
    bool m_droppedRoot = false;
};

inline QByteArray readAll(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

inline bool writeAll(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

inline bool isOwnerOnly(const QString &path)
{
    const auto p = QFileInfo(path).permissions();
    const auto others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
                        QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    return (p & QFileDevice::ReadOwner) && (p & QFileDevice::WriteOwner) && !(p & others);
}

inline Provider provider(const QString &name, ProviderWire wire = ProviderWire::openAI,
                         const QUuid &id = QUuid::createUuid())
{
    Provider p;
    p.id = id;
    p.name = name;
    p.wire = wire;
    p.baseURL = QStringLiteral("https://api.example.com/v1");
    p.model = QStringLiteral("model-") + name;
    p.cachedModels = {QStringLiteral("a"), QStringLiteral("b")};
    p.apiKey = QStringLiteral("sk-") + name;
    return p;
}

inline Conversation conversation(const QString &title, double updatedAt, const QUuid &id = QUuid::createUuid())
{
    Conversation c;
    c.id = id;
    c.title = title;
    c.createdAt = updatedAt - 10;
    c.updatedAt = updatedAt;
    c.messages = {ChatMessage(ChatRole::user, QStringLiteral("question about ") + title),
                  ChatMessage(ChatRole::assistant, QStringLiteral("an **answer** with `code` and \\ and é"),
                              TokenUsage{3, 4, 7})};
    return c;
}

} // namespace StorageTest
