#include "storage/providerwriter.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"
#include "storage/providerstore.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <sys/resource.h>
#include <unistd.h>

ProviderWriter::ProviderWriter(std::function<void()> notify)
    : m_notify(std::move(notify))
    , m_thread([this] { run(); })
{}

ProviderWriter::~ProviderWriter()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

void ProviderWriter::submit(Job job)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_pending) {
            if (!job.providers)
                job.providers = std::move(m_pending->providers);
            if (!job.selectionChanged) {
                job.selectionChanged = m_pending->selectionChanged;
                job.selection = m_pending->selection;
            }
        }
        m_pending = std::move(job);
    }
    m_wake.notify_one();
}

void ProviderWriter::waitForIdle()
{
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return !m_pending && !m_busy; });
}

QList<ProviderWriter::Outcome> ProviderWriter::takeOutcomes()
{
    std::lock_guard lock(m_mutex);
    return std::exchange(m_outcomes, {});
}

void ProviderWriter::run()
{
    // The window comes first: on a busy machine the save waits for spare time rather than taking it
    // from the main thread (on Linux, a thread's niceness is its own).
    ::setpriority(PRIO_PROCESS, id_t(::gettid()), 10);
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_pending || m_stopping; });
        if (!m_pending)
            return; // stopping, and nothing is left to write
        Job job = std::move(*m_pending);
        m_pending.reset();
        m_busy = true;
        lock.unlock();
        Outcome outcome = write(job);
        lock.lock();
        m_outcomes.append(std::move(outcome));
        m_busy = false;
        if (!m_pending)
            m_idle.notify_all();
        if (m_notify) {
            lock.unlock();
            m_notify();
            lock.lock();
        }
    }
}

ProviderWriter::Outcome ProviderWriter::write(const Job &job)
{
    Outcome outcome;
    outcome.generation = job.generation;
    // Encoded here, not on the thread that handed the list over: ten thousand providers take tens
    // of milliseconds.
    const QByteArray encoded = job.providers ? encodeJson(*job.providers) : QByteArray();

    QSettings settings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
    const QString fileName = settings.fileName();
    // QSettings keeps the permissions of a file it replaces; made owner-only before the first
    // write, the keys are never readable by others, not even for a moment.
    if (!QFileInfo::exists(fileName) && QDir().mkpath(QFileInfo(fileName).absolutePath())) {
        QFile file(fileName);
        if (file.open(QIODevice::WriteOnly))
            file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }
    if (job.providers)
        settings.setValue(ProviderStore::providersKey, encoded);
    if (job.selectionChanged) {
        if (job.selection)
            settings.setValue(ProviderStore::selectedKey, JsonCoding::uuidText(*job.selection));
        else
            settings.remove(ProviderStore::selectedKey);
    }
    settings.sync();
    // The preferences file holds every API key in plain text.
    AtomicFile::restrictToOwner(fileName);
    if (settings.status() != QSettings::NoError) {
        outcome.error =
            QCoreApplication::translate("ProviderStore", "The providers could not be saved to %1.").arg(fileName);
    }
    return outcome;
}
