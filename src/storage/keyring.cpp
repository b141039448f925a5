#include "storage/keyring.h"

#include "model/jsoncoding.h"

#include <qt6keychain/keychain.h>

namespace {

Keyring::Outcome outcomeOf(const QKeychain::Job &job)
{
    switch (job.error()) {
    case QKeychain::NoError:
        return Keyring::Outcome::Done;
    case QKeychain::EntryNotFound:
        return Keyring::Outcome::NotFound;
    default:
        // No Secret Service, a locked collection the user would not open, a broken bus: the key
        // cannot be had from here, whatever the reason.
        return Keyring::Outcome::Unavailable;
    }
}

} // namespace

Keyring::Keyring(QObject *parent)
    : QObject(parent)
{}

Keyring::~Keyring() = default;

QString Keyring::service()
{
    return QStringLiteral("Verbolt");
}

void Keyring::read(const QUuid &id)
{
    auto *job = new QKeychain::ReadPasswordJob(service(), this);
    job->setKey(JsonCoding::uuidText(id));
    connect(job, &QKeychain::Job::finished, this, [this, id](QKeychain::Job *done) {
        const Outcome outcome = outcomeOf(*done);
        std::optional<QString> key;
        if (outcome == Outcome::Done)
            key = static_cast<QKeychain::ReadPasswordJob *>(done)->textData();
        emit keyRead(id, outcome, key);
    });
    job->start();
}

void Keyring::write(const QUuid &id, const QString &key)
{
    auto *job = new QKeychain::WritePasswordJob(service(), this);
    job->setKey(JsonCoding::uuidText(id));
    job->setTextData(key);
    connect(job, &QKeychain::Job::finished, this,
            [this, id, key](QKeychain::Job *done) { emit written(id, outcomeOf(*done), key); });
    job->start();
}

void Keyring::remove(const QUuid &id)
{
    auto *job = new QKeychain::DeletePasswordJob(service(), this);
    job->setKey(JsonCoding::uuidText(id));
    connect(job, &QKeychain::Job::finished, this, [this, id](QKeychain::Job *done) {
        const Outcome outcome = outcomeOf(*done);
        emit removed(id, outcome == Outcome::NotFound ? Outcome::Done : outcome);
    });
    job->start();
}
