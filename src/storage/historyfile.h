#pragma once

#include "model/conversation.h"

#include <QList>
#include <QString>

#include <optional>
#include <sys/types.h>

// Reading conversations.json and keeping an unreadable one aside. Shared by the store's load on
// the main thread and its writer thread, which re-reads the file when another program changed it.
namespace HistoryFile {

// Which version of the file was seen: an atomic replacement gives a new inode, an edit in place a
// new size or modification time. Two stamps of a missing file are equal.
struct Stamp
{
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    qint64 modifiedNs = 0;

    friend bool operator==(const Stamp &, const Stamp &) = default;
};

Stamp stampOf(const QString &path);

struct ReadResult
{
    // Changing: another program kept writing the file while it was read.
    enum class Status { Missing, Unreadable, Changing, Decoded };
    Status status = Status::Missing;
    QList<Conversation> conversations; // in the file's order
    Stamp stamp;                       // of the version that was read
};

// Reads and decodes the whole file. Reads rather than maps it, since another program may truncate
// it meanwhile, and a UTF-8 byte-order mark at the start is skipped. A file that changes while it
// is read is read again.
ReadResult read(const QString &path);

// Keeps a copy of the unreadable history at path beside it, as
// "conversations.unreadable-<stamp>.json", owner-only, unless a copy with the same bytes is already
// there: repeated starts on the same broken file keep one copy. With allowMove, a file that cannot
// be copied is moved aside instead. Returns where the bytes are kept, or nothing when neither worked.
std::optional<QString> keepAside(const QString &path, bool allowMove);

} // namespace HistoryFile
