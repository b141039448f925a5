#include "storage/historybackups.h"

#include "model/json.h"
#include "storage/atomicfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>

#include <algorithm>

namespace HistoryBackups {

namespace {

constexpr int dailyKept = 7;
constexpr int weeksKept = 4;

const QRegularExpression &namePattern()
{
    static const QRegularExpression pattern(QStringLiteral("^conversations-(\\d{4}-\\d{2}-\\d{2})\\.json$"));
    return pattern;
}

// Weeks start on Monday; the Julian day number 0 was a Monday.
qint64 weekOf(QDate date)
{
    return date.toJulianDay() / 7;
}

} // namespace

QString folderFor(const QString &historyPath)
{
    return QFileInfo(historyPath).absolutePath() + QStringLiteral("/backups");
}

QString pathFor(const QString &historyPath, QDate date)
{
    return folderFor(historyPath) + QStringLiteral("/conversations-") + date.toString(Qt::ISODate) +
           QStringLiteral(".json");
}

std::optional<QString> keepDailyCopy(const QString &historyPath, QDate today)
{
    const QString target = pathFor(historyPath, today);
    if (QFileInfo::exists(target))
        return std::nullopt;
    QFile source(historyPath);
    if (!source.exists() || source.size() == 0)
        return std::nullopt; // nothing to keep yet
    const QString folder = folderFor(historyPath);
    if (!QDir().mkpath(folder))
        return QStringLiteral("The folder %1 could not be made.").arg(folder);
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    if (!source.open(QIODevice::ReadOnly))
        return source.errorString();
    // Through a temporary file: a copy cut short by a full disk never passes for a day's history.
    const auto error = AtomicFile::write(target, [&](QIODevice &device) {
        constexpr qint64 block = 4 << 20;
        while (!source.atEnd()) {
            const QByteArray piece = source.read(block);
            if (piece.isEmpty() || device.write(piece) != piece.size())
                return false;
        }
        return source.error() == QFileDevice::NoError;
    });
    if (error)
        return error;
    prune(folder, today);
    return std::nullopt;
}

void prune(const QString &folder, QDate today)
{
    const QList<Copy> copies = list(QFileInfo(folder).absolutePath() + QStringLiteral("/conversations.json"));
    // Newest first: the first copy met in a week is the one that week keeps.
    QHash<qint64, bool> weekTaken;
    for (const Copy &copy : std::as_const(copies)) {
        const qint64 age = copy.date.daysTo(today);
        if (age < dailyKept)
            continue;
        const qint64 weeksAgo = weekOf(today) - weekOf(copy.date);
        if (weeksAgo >= 1 && weeksAgo <= weeksKept && !weekTaken.value(weekOf(copy.date))) {
            weekTaken.insert(weekOf(copy.date), true);
            continue;
        }
        QFile::remove(copy.path);
    }
}

QList<Copy> list(const QString &historyPath)
{
    QList<Copy> copies;
    const QDir folder(folderFor(historyPath));
    const QStringList names = folder.entryList({QStringLiteral("conversations-*.json")}, QDir::Files);
    for (const QString &name : names) {
        const QRegularExpressionMatch match = namePattern().match(name);
        if (!match.hasMatch())
            continue;
        const QDate date = QDate::fromString(match.captured(1), Qt::ISODate);
        if (date.isValid())
            copies.append({date, folder.filePath(name)});
    }
    std::sort(copies.begin(), copies.end(), [](const Copy &a, const Copy &b) { return a.date > b.date; });
    return copies;
}

std::optional<qsizetype> countConversations(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = file.readAll();
    const auto document = Json::Document::parse(bytes);
    if (!document || !document->root().isArray())
        return std::nullopt;
    return document->root().size();
}

} // namespace HistoryBackups
