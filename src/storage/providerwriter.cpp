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
    : m_thread(
          &ProviderWriter::write,
          [](Job &newer, Job &&older) {
              if (!newer.providers)
                  newer.providers = std::move(older.providers);
              if (!newer.selectionChanged) {
                  newer.selectionChanged = older.selectionChanged;
                  newer.selection = older.selection;
              }
          },
          std::move(notify),
          // The window comes first: on a busy machine the save waits for spare time rather than
          // taking it from the main thread (on Linux, a thread's niceness is its own).
          [] { ::setpriority(PRIO_PROCESS, id_t(::gettid()), 10); })
{}

ProviderWriter::Outcome ProviderWriter::write(Job &&job)
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
