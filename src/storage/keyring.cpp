#include "storage/keyring.h"

#include "model/jsoncoding.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <qt6keychain/keychain.h>

#include <utility>

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
    run({Pending::Kind::Read, id, {}});
}

void Keyring::write(const QUuid &id, const QString &key)
{
    run({Pending::Kind::Write, id, key});
}

void Keyring::remove(const QUuid &id)
{
    run({Pending::Kind::Remove, id, {}});
}

void Keyring::run(const Pending &job)
{
    if (!m_hasDefault) {
        if (m_waiting.isEmpty())
            askForDefaultKeyring();
        m_waiting.append(job);
        return;
    }
    switch (job.kind) {
    case Pending::Kind::Read:
        startRead(job.id);
        break;
    case Pending::Kind::Write:
        if (*m_hasDefault)
            startWrite(job.id, job.key);
        else
            emit written(job.id, Outcome::Unavailable, job.key);
        break;
    case Pending::Kind::Remove:
        startRemove(job.id);
        break;
    }
}

void Keyring::askForDefaultKeyring()
{
    const auto settle = [this](bool hasDefault) {
        m_hasDefault = hasDefault;
        const QList<Pending> waiting = std::exchange(m_waiting, {});
        for (const Pending &job : waiting)
            run(job);
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        // No session bus: the jobs fail at once and say so. Still after this call returns, as
        // every answer of this class comes.
        QMetaObject::invokeMethod(
            this, [settle] { settle(true); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("ReadAlias"));
    ask << QStringLiteral("default");
    // The bus may have to start the keyring daemon first; past this it is not coming.
    constexpr int answerWithinMs = 10000;
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(ask, answerWithinMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [settle](QDBusPendingCallWatcher *answered) {
        answered->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *answered;
        // "/" is the Secret Service's word for no keyring under that name. Any other answer,
        // an error included (no Secret Service on the bus, or one that does not know aliases),
        // is left to the jobs themselves to find out.
        settle(reply.isError() || reply.value().path() != QStringLiteral("/"));
    });
}

void Keyring::startRead(const QUuid &id)
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

void Keyring::startWrite(const QUuid &id, const QString &key)
{
    auto *job = new QKeychain::WritePasswordJob(service(), this);
    job->setKey(JsonCoding::uuidText(id));
    job->setTextData(key);
    connect(job, &QKeychain::Job::finished, this,
            [this, id, key](QKeychain::Job *done) { emit written(id, outcomeOf(*done), key); });
    job->start();
}

void Keyring::startRemove(const QUuid &id)
{
    auto *job = new QKeychain::DeletePasswordJob(service(), this);
    job->setKey(JsonCoding::uuidText(id));
    connect(job, &QKeychain::Job::finished, this, [this, id](QKeychain::Job *done) {
        const Outcome outcome = outcomeOf(*done);
        emit removed(id, outcome == Outcome::NotFound ? Outcome::Done : outcome);
    });
    job->start();
}
