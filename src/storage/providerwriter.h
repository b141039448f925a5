#pragma once

#include "model/provider.h"
#include "storage/writerthread.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

// Writes the providers and the selected provider's id to the preferences on a thread of its own,
// so that neither encoding a long list nor the file's write and flush ever stalls the window.
//
// Saves are taken in order and folded: only the newest list and selection waiting are written,
// so the file always ends with the newest state handed over. Each save goes through a QSettings
// object the writer makes for it on its own thread (never one another thread uses) and lands
// whole: QSettings writes beside the file and renames, so a failed save leaves the old file as it
// was, and its outcome says why. The file is made owner-only before anything is written to it, as
// it may hold API keys.
class ProviderWriter final
{
public:
    // What to write; an absent part is left as the file has it.
    struct Job
    {
        quint64 generation = 0;
        std::optional<QList<Provider>> providers; // with the API keys the file is to hold
        bool selectionChanged = false;
        std::optional<QUuid> selection; // absent: no provider is selected, the key is removed
    };

    // What one write did, for the owning thread to take in.
    struct Outcome
    {
        quint64 generation = 0;       // of the newest job this write carried
        std::optional<QString> error; // why nothing was written, if nothing was
    };

    // notify is called on the writer thread after each write.
    explicit ProviderWriter(std::function<void()> notify);

    // Hands a state over and returns at once. A job still waiting is folded into this one.
    void submit(Job job) { m_thread.submit(std::move(job)); }
    // Blocks until every job handed over has been written or has failed.
    void waitForIdle() { m_thread.waitForIdle(); }
    // The outcomes not taken yet, oldest first.
    QList<Outcome> takeOutcomes() { return m_thread.takeOutcomes(); }

private:
    static Outcome write(Job &&job);

    // Writes what is still waiting when it goes.
    WriterThread<Job, Outcome> m_thread;
};
