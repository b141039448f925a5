#include "storage/historywriter.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"
#include "storage/historybackups.h"

#include <QHash>
#include <QLockFile>

#include <algorithm>

HistoryWriter::HistoryWriter(QString path, HistoryFile::Stamp known, QList<Conversation> onDisk, bool unreadableInPlace,
                             std::function<void()> notify)
    : m_path(std::move(path))
    , m_known(known)
    , m_lastWritten(std::move(onDisk))
    , m_unreadableInPlace(unreadableInPlace)
    , m_thread([this](Job &&job) { return write(std::move(job)); },
               [](Job &newer, Job &&older) {
                   newer.changed.unite(older.changed);
                   newer.deleted.unite(older.deleted);
               },
               std::move(notify))
{}

namespace {

void sortNewestFirst(QList<Conversation> &list)
{
    std::stable_sort(list.begin(), list.end(),
                     [](const Conversation &a, const Conversation &b) { return a.updatedAt > b.updatedAt; });
}

// The compact JSON array of the list, produced one conversation at a time and handed to the file in
// chunks of a few megabytes: few system calls, and never a second copy of the whole history.
bool writeList(QIODevice &device, const QList<Conversation> &list)
{
    constexpr qsizetype chunkSize = 4 << 20;
    QByteArray chunk;
    chunk.reserve(chunkSize);
    const auto flush = [&] {
        const bool written = device.write(chunk) == chunk.size();
        chunk.resize(0);
        return written;
    };
    chunk.append('[');
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (i > 0)
            chunk.append(',');
        const QByteArray piece = encodeStored(list.at(i));
        if (chunk.size() + piece.size() > chunkSize && !flush())
            return false;
        if (piece.size() > chunkSize) {
            if (device.write(piece) != piece.size())
                return false;
        } else {
            chunk.append(piece);
        }
    }
    chunk.append(']');
    return flush();
}

} // namespace

// The snapshot is laid over what the file holds (base): a record this process changed or created is
// its own, one it deleted is left out, every other record is the base's, and a record only the base
// has is appended (nothing is ever dropped). When the base brought anything in, the whole list is
// sorted newest first. Records of a base read from the file that this process did not have as they
// are go to adopted, when given.
// A record read from the file, with its messages decoded: kept in their stored form, a single one
// would hold the whole file it came from in memory.
static const Conversation &adopt(Conversation record, QList<Conversation> &adopted)
{
    record.messages.list();
    adopted.append(std::move(record));
    return adopted.last();
}

static QList<Conversation> mergeOnto(const QList<Conversation> &base, const HistoryWriter::Job &job,
                                     QList<Conversation> *adopted)
{
    QHash<QUuid, qsizetype> inBase;
    inBase.reserve(base.size());
    for (qsizetype i = base.size() - 1; i >= 0; --i)
        inBase.insert(base.at(i).id, i); // the first of equal ids wins, as in every lookup

    QList<Conversation> merged;
    merged.reserve(job.snapshot.size() + base.size());
    QSet<QUuid> placed;
    placed.reserve(job.snapshot.size());
    bool broughtIn = false;
    for (const Conversation &record : job.snapshot) {
        placed.insert(record.id);
        const auto there = inBase.constFind(record.id);
        if (there == inBase.cend() || job.changed.contains(record.id)) {
            merged.append(record);
            continue;
        }
        const Conversation &theirs = base.at(*there);
        if (!adopted) {
            merged.append(theirs);
        } else if (theirs == record) {
            merged.append(record); // the same: the copy this process holds already
        } else {
            merged.append(adopt(theirs, *adopted));
            broughtIn = true;
        }
    }
    for (const Conversation &record : base) {
        if (placed.contains(record.id) || job.deleted.contains(record.id))
            continue;
        placed.insert(record.id);
        merged.append(adopted ? adopt(record, *adopted) : record);
        broughtIn = true;
    }
    if (broughtIn)
        sortNewestFirst(merged);
    return merged;
}

HistoryWriter::Outcome HistoryWriter::write(Job &&job)
{
    Outcome outcome;
    outcome.generation = job.generation;
    // What a failed write carried is still this process's own until a write succeeds.
    job.changed.unite(m_unsavedChanged);
    job.deleted.unite(m_unsavedDeleted);
    const auto fail = [&](const QString &error) {
        outcome.error = error;
        m_unsavedChanged = job.changed;
        m_unsavedDeleted = job.deleted;
        return outcome;
    };

    // Another Verbolt process (or tool) writes the same file: one writer at a time. A lock left by
    // a process that died is taken over.
    QLockFile lock(m_path + QStringLiteral(".lock"));
    if (!lock.lock())
        return fail(QStringLiteral("The conversation history %1 could not be locked.").arg(m_path));

    // The base is what the file holds now: what this process last wrote, unless someone else has
    // written since.
    QList<Conversation> base = m_lastWritten;
    bool fromFile = false;
    bool unreadable = false;
    const HistoryFile::Stamp current = HistoryFile::stampOf(m_path);
    if (!current.exists) {
        base.clear();
    } else if (m_unreadableInPlace || !(current == m_known)) {
        HistoryFile::ReadResult onDisk = HistoryFile::read(m_path);
        base.clear();
        switch (onDisk.status) {
        case HistoryFile::ReadResult::Status::Decoded:
            base = std::move(onDisk.conversations);
            fromFile = true;
            break;
        case HistoryFile::ReadResult::Status::Changing:
            return fail(QStringLiteral("The conversation history %1 is being written by another program.").arg(m_path));
        case HistoryFile::ReadResult::Status::Unreadable:
            unreadable = true;
            // Replacing it would destroy whatever history it holds: it is kept aside first, or
            // left alone when that is impossible. An empty file holds nothing to keep.
            if (onDisk.stamp.size > 0) {
                outcome.keptAsidePath = HistoryFile::keepAside(m_path, true);
                if (!outcome.keptAsidePath)
                    return fail(QStringLiteral("The conversation history in %1 could not be read or kept aside; "
                                               "it is left as it is.")
                                    .arg(m_path));
            }
            break;
        case HistoryFile::ReadResult::Status::Missing:
            break;
        }
    }

    if (job.today.isValid() && job.today != m_backedUp) {
        // The day's first state, before this save changes it. A copy that fails is not tried
        // again until tomorrow: a full disk must not cost every save a futile copy.
        if (current.exists && !unreadable)
            HistoryBackups::keepDailyCopy(m_path, job.today);
        m_backedUp = job.today;
    }

    QList<Conversation> merged = mergeOnto(base, job, fromFile ? &outcome.adopted : nullptr);
    base.clear();
    job.snapshot.clear();
    if (const auto error = AtomicFile::write(m_path, [&](QIODevice &device) { return writeList(device, merged); }))
        return fail(*error);
    m_known = HistoryFile::stampOf(m_path);
    m_unreadableInPlace = false;
    m_lastWritten = std::move(merged);
    m_unsavedChanged.clear();
    m_unsavedDeleted.clear();
    return outcome;
}
