#pragma once

#include "model/conversation.h"
#include "storage/historyfile.h"
#include "storage/writerthread.h"

#include <QDate>
#include <QList>
#include <QSet>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

// Writes the conversation history on a thread of its own, so that a save never stalls the window.
// Saves are taken in order and only the newest waiting one is written: the file always ends with
// the newest state handed over. Each write holds a lock file beside the history and lays the
// snapshot over what the file holds, by id: what this process changed is its own, everything else
// is the file's, and nothing is dropped. When another process wrote the file since this one last
// read or wrote it, the writer reads it first, so a conversation saved there is never lost.
// The first save of each day first keeps a dated copy of the file as it stood (see HistoryBackups);
// a copy that cannot be made never stops the save.
class HistoryWriter final
{
public:
    // One state of the history to write, with what this process did since the previous job.
    struct Job
    {
        quint64 generation = 0;
        QList<Conversation> snapshot;
        QSet<QUuid> changed; // created or changed here: this process's record wins
        QSet<QUuid> deleted; // deleted here: left out even when the file still has it
        QDate today;         // the local day of this save: its first save keeps a dated copy
    };

    // What one write did, for the main thread to take in.
    struct Outcome
    {
        quint64 generation = 0;               // of the newest job this write carried
        std::optional<QString> error;         // why nothing was written, if nothing was
        QList<Conversation> adopted;          // records another process saved, as the file has them now
        std::optional<QString> keptAsidePath; // where an unreadable file found on the way was kept
    };

    // known is the version of the file this process read at start, onDisk what it held.
    // unreadableInPlace says the file could not be read then and no copy of it exists yet: it is
    // kept aside before it is replaced. notify is called on the writer thread after each write.
    HistoryWriter(QString path, HistoryFile::Stamp known, QList<Conversation> onDisk, bool unreadableInPlace,
                  std::function<void()> notify);
    HistoryWriter(const HistoryWriter &) = delete;
    HistoryWriter &operator=(const HistoryWriter &) = delete;

    // Hands a state over and returns at once. A job still waiting is folded into this one.
    void submit(Job job) { m_thread.submit(std::move(job)); }
    // Blocks until every job handed over has been written or has failed.
    void waitForIdle() { m_thread.waitForIdle(); }
    // The outcomes not taken yet, oldest first.
    QList<Outcome> takeOutcomes() { return m_thread.takeOutcomes(); }

private:
    Outcome write(Job &&job);

    const QString m_path;
    // Touched by the writer thread only.
    HistoryFile::Stamp m_known;
    // The list as last written (or read at start): its records are shared with the snapshots.
    QList<Conversation> m_lastWritten;
    bool m_unreadableInPlace;
    QDate m_backedUp; // the day whose copy was last seen to or made
    QSet<QUuid> m_unsavedChanged;
    QSet<QUuid> m_unsavedDeleted;

    // Last, so that it writes what is still waiting and stops before the members above go.
    WriterThread<Job, Outcome> m_thread;
};
