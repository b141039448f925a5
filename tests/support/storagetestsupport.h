#pragma once

// Helpers for every test that touches the user's files: a private profile in temporary XDG
// folders, scripted dialogs, and a way to meet a read-only folder even when the tests run as root.

#include "model/conversation.h"
#include "model/jsoncoding.h"
#include "model/provider.h"
#include "storage/filedialogs.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QSettings>
#include <QTemporaryDir>
#include <QUuid>

#include <algorithm>
#include <grp.h>
#include <optional>
#include <unistd.h>
#include <vector>

namespace StorageTest {

using namespace Qt::StringLiterals;

// Points XDG_CONFIG_HOME and XDG_DATA_HOME into a fresh temporary folder. Must run before the
// first QSettings or QStandardPaths use of the process (QSettings caches its paths).
class Profile
{
public:
    Profile()
    {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(dataHome()));
        QDir().mkpath(configHome());
        QDir().mkpath(dataHome());
    }
    QString root() const { return m_dir.path(); }
    QString configHome() const { return root() + u"/config"_s; }
    QString dataHome() const { return root() + u"/data"_s; }
    QString conversationsFile() const { return dataHome() + u"/Verbolt/conversations.json"_s; }

private:
    QTemporaryDir m_dir;
};

// Answers dialogs from a script and records what they were asked to show.
class ScriptedDialogs final : public FileDialogs
{
public:
    explicit ScriptedDialogs(std::optional<QString> answer = std::nullopt)
        : answer(std::move(answer))
    {}
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

// Runs act while folder is read-only, or returns false where that cannot be arranged. Root
// ignores folder permissions, so for root the effective user and group become "nobody" meanwhile, once the
// folders from folder's parent up to boundary are passable for "nobody". The folder's files
// belong to "nobody" meanwhile, as a user's own files do: a writer that falls back to
// overwriting a file in place would succeed, and be caught.
template<class Act>
bool whileReadOnly(const QString &folder, const QString &boundary, Act act)
{
    constexpr uid_t nobody = 65534;
    const QStringList files = geteuid() == 0 ? QDir(folder).entryList(QDir::Files | QDir::Hidden) : QStringList();
    for (const QString &name : files) {
        if (chown(QFile::encodeName(folder + u'/' + name).constData(), nobody, nobody) != 0)
            return false;
    }
    const auto permissions = QFileInfo(folder).permissions();
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                                      QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther);
    QList<std::pair<QString, QFileDevice::Permissions>> opened;
    for (QDir dir(QFileInfo(folder).absolutePath()); geteuid() == 0 && dir.absolutePath().startsWith(boundary);
         dir.cdUp()) {
        opened.append({dir.absolutePath(), QFileInfo(dir.absolutePath()).permissions()});
        QFile::setPermissions(dir.absolutePath(), opened.last().second | QFileDevice::ExeOther);
        if (dir.absolutePath() == boundary)
            break;
    }
    // Root's groups go too: a folder of group root with no group rights would otherwise stop
    // "nobody" at the door, and the act would fail for that reason instead.
    const bool wasRoot = geteuid() == 0;
    std::vector<gid_t> groups(wasRoot ? std::max(0, getgroups(0, nullptr)) : 0);
    if (wasRoot && (getgroups(int(groups.size()), groups.data()) < 0 || setgroups(0, nullptr) != 0 ||
                    setegid(nobody) != 0 || seteuid(nobody) != 0))
        qWarning("cannot become \"nobody\"");
    const bool effective = geteuid() != 0;
    if (effective)
        act();
    if (wasRoot && (seteuid(0) != 0 || setegid(0) != 0 || setgroups(groups.size(), groups.data()) != 0))
        qFatal("cannot become root again");
    for (const auto &[path, previous] : std::as_const(opened))
        QFile::setPermissions(path, previous);
    QFile::setPermissions(folder, permissions);
    for (const QString &name : files) {
        if (chown(QFile::encodeName(folder + u'/' + name).constData(), 0, 0) != 0)
            qFatal("cannot give a file back to root");
    }
    return effective;
}

// The preferences, where the providers and their selection are kept.
inline QSettings settings()
{
    return QSettings(u"Verbolt"_s, u"Verbolt"_s);
}

inline QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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

// One member of every item, in order.
template<class T, class M>
QList<M> each(const QList<T> &items, M T::*member)
{
    QList<M> out;
    for (const T &item : items)
        out.append(item.*member);
    return out;
}
template<class T>
QList<QUuid> ids(const QList<T> &items)
{
    return each(items, &T::id);
}
inline QStringList contents(const QList<ChatMessage> &messages)
{
    return each(messages, &ChatMessage::content);
}

inline Provider provider(const QString &name, ProviderWire wire = ProviderWire::openAI,
                         const QUuid &id = QUuid::createUuid())
{
    return {id, name, wire, u"https://api.example.com/v1"_s, u"model-"_s + name, {u"a"_s, u"b"_s}, u"sk-"_s + name};
}

inline Conversation conversation(const QString &title, double updatedAt, const QUuid &id = QUuid::createUuid())
{
    const QList<ChatMessage> messages = {
        ChatMessage(ChatRole::user, u"question about "_s + title),
        ChatMessage(ChatRole::assistant, u"an **answer** with `code` and \\ and é"_s, TokenUsage{3, 4, 7})};
    return {id, title, std::nullopt, messages, updatedAt - 10, updatedAt};
}

} // namespace StorageTest
