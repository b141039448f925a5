#pragma once

#include "model/conversation.h"

#include <QDate>
#include <QList>
#include <QString>

#include <optional>

// Dated copies of the conversation history, kept in a "backups" folder beside it as
// "conversations-YYYY-MM-DD.json" (owner-only): each is the history as it stood when the day's first
// save came, so a bad day can be undone. The last 7 days and one copy for each of the 4 weeks
// before are kept, at most 11 copies dated up to today; older ones are removed. Copies dated
// after today (made while the clock was set ahead) are kept too, until their day has passed:
// they are the user's data, and a clock is no reason to delete it.
//
// All of it is file work meant for the history's writer thread or another worker thread, never
// the main one: a copy of a large history takes a while.
namespace HistoryBackups {

struct Copy
{
    QDate date;
    QString path;
};

QString folderFor(const QString &historyPath);
QString pathFor(const QString &historyPath, QDate date);

// Keeps today's copy of the history at historyPath unless there is one already, then removes
// copies no longer kept. Returns nothing on success (also when there was nothing to do), or why the
// copy could not be made; the history itself is never touched.
std::optional<QString> keepDailyCopy(const QString &historyPath, QDate today);

// Removes the copies that fall outside the last 7 days and the newest of each of the 4 weeks before
// today's week. Files of other names are left alone.
void prune(const QString &folder, QDate today);

// The dated copies beside historyPath, newest first.
QList<Copy> list(const QString &historyPath);

// How many conversations a copy holds, or nothing when it cannot be read as a history.
std::optional<qsizetype> countConversations(const QString &path);

} // namespace HistoryBackups
