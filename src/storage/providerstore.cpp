#include "storage/providerstore.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"
#include "storage/providerwriter.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QPointer>
#include <QSettings>

ProviderStore::ProviderStore(QObject *parent)
    : QObject(parent)
    , m_writer(std::make_unique<ProviderWriter>(
          [this] { QMetaObject::invokeMethod(this, &ProviderStore::takeSaveOutcomes, Qt::QueuedConnection); }))
{
    m_keysArrived.setSingleShot(true);
    m_keysArrived.setInterval(50);
    connect(&m_keysArrived, &QTimer::timeout, this, &ProviderStore::announceKeys);
    load();
    // Closing the last window quits at once: whatever was handed to the writer is on disk first.
    if (QCoreApplication *app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &ProviderStore::waitForSaved);
}

ProviderStore::~ProviderStore()
{
    finishKeyringWrites(3000);
    m_writer.reset();
}

void ProviderStore::waitForSaved()
{
    m_writer->waitForIdle();
    takeSaveOutcomes();
}

void ProviderStore::takeSaveOutcomes()
{
    const QList<ProviderWriter::Outcome> outcomes = m_writer->takeOutcomes();
    if (outcomes.isEmpty())
        return;
    const std::optional<QString> error = outcomes.last().error;
    if (error == m_lastSaveError)
        return;
    m_lastSaveError = error;
    emit lastSaveErrorChanged();
}

void ProviderStore::finishKeyringWrites(int timeoutMs)
{
    if (m_keyringWrites.isEmpty())
        return;
    QEventLoop loop;
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    connect(m_keyring, &Keyring::written, &loop, [this, &loop] {
        if (m_keyringWrites.isEmpty())
            loop.quit();
    });
    connect(this, &ProviderStore::keyStorageChanged, &loop, &QEventLoop::quit);
    loop.exec();
    // A key the keyring never confirmed is not left to chance: it goes to the file after all.
    if (!m_keyringWrites.isEmpty())
        keyringUnavailable();
}

void ProviderStore::load()
{
    // Read here, once, on the thread that makes the store; from now on only the writer touches the
    // file, each time through a QSettings of its own.
    QSettings settings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
    m_fileName = settings.fileName();
    const QByteArray stored = settings.value(providersKey).toByteArray();
    if (!stored.isEmpty()) {
        if (auto decoded = decodeJson<QList<Provider>>(stored)) {
            m_providers = std::move(*decoded);
            for (const Provider &p : std::as_const(m_providers)) {
                if (!p.apiKey.isEmpty())
                    m_fileKeys.insert(p.id, p.apiKey);
            }
        } else {
            // The stored bytes stay where they are, but the first save would replace them with a
            // shorter list: a copy under another key keeps the user's providers and keys.
            QString key = unreadableKey;
            const QVariant existing = settings.value(key);
            if (existing.isValid() && existing.toByteArray() != stored)
                key += u'.' + AtomicFile::asideStamp();
            settings.setValue(key, stored);
            // On disk before the writer can save the shorter list over the original.
            settings.sync();
            m_keptAsideKey = key;
        }
    }

    std::optional<QUuid> selection;
    const QString storedID = settings.value(selectedKey).toString();
    if (const auto parsed = JsonCoding::parseUuid(storedID); parsed && find(*parsed))
        selection = *parsed;
    if (!selection && !m_providers.isEmpty())
        selection = m_providers.first().id;
    // Written back even when unchanged: a lower-case or stale id is replaced by the canonical form.
    assignSelectedID(selection);
}

void ProviderStore::setProviders(const QList<Provider> &providers)
{
    m_providers = providers;
    for (const Provider &p : std::as_const(m_providers))
        storeKey(p);
    persist();
    emit providersChanged();
}

void ProviderStore::setSelectedID(const std::optional<QUuid> &id)
{
    assignSelectedID(id);
}

void ProviderStore::assignSelectedID(const std::optional<QUuid> &id)
{
    const bool changed = id != m_selectedID;
    m_selectedID = id;
    ProviderWriter::Job job;
    job.generation = ++m_saveGeneration;
    job.selectionChanged = true;
    job.selection = id;
    m_writer->submit(std::move(job));
    if (changed)
        emit selectedIDChanged();
}

std::optional<Provider> ProviderStore::selected() const
{
    const Provider *found = m_selectedID ? find(*m_selectedID) : nullptr;
    if (!found)
        return std::nullopt;
    return *found;
}

const Provider *ProviderStore::find(const QUuid &id) const
{
    const qsizetype i = indexOf(id);
    return i < 0 ? nullptr : &m_providers.at(i);
}

qsizetype ProviderStore::indexOf(const QUuid &id) const
{
    for (qsizetype i = 0; i < m_providers.size(); ++i) {
        if (m_providers.at(i).id == id)
            return i;
    }
    return -1;
}

void ProviderStore::add(const Provider &provider)
{
    m_providers.append(provider);
    storeKey(provider);
    persist();
    emit providersChanged();
    if (!m_selectedID)
        assignSelectedID(provider.id);
}

void ProviderStore::update(const Provider &provider)
{
    const qsizetype i = indexOf(provider.id);
    if (i < 0)
        return;
    // A form filled before the key arrived from the keyring sends an empty key back: that is
    // no wish to forget it, and the key still fills in when it arrives (see handleKeyRead).
    m_providers[i] = provider;
    storeKey(m_providers[i]);
    persist();
    emit providersChanged();
}

void ProviderStore::remove(const Provider &provider)
{
    m_providers.removeIf([&](const Provider &p) { return p.id == provider.id; });
    if (m_keyringState == KeyringState::Available && !m_keyringHolds.value(provider.id).isEmpty())
        m_keyring->remove(provider.id);
    m_keyringHolds.remove(provider.id);
    m_keyringWrites.remove(provider.id);
    persist();
    emit providersChanged();
    if (m_selectedID && *m_selectedID == provider.id)
        assignSelectedID(m_providers.isEmpty() ? std::nullopt : std::optional<QUuid>(m_providers.first().id));
}

void ProviderStore::merge(const QList<Provider> &incoming)
{
    // An import may bring thousands: one index and one save, never a scan and a save per record.
    QHash<QUuid, qsizetype> index;
    index.reserve(m_providers.size() + incoming.size());
    for (qsizetype i = m_providers.size() - 1; i >= 0; --i)
        index.insert(m_providers.at(i).id, i); // the first of equal ids wins, as in every lookup
    for (const Provider &provider : incoming) {
        const auto it = index.constFind(provider.id);
        if (it != index.cend()) {
            m_providers[*it] = provider;
        } else {
            index.insert(provider.id, m_providers.size());
            m_providers.append(provider);
        }
        storeKey(provider);
    }
    if (!incoming.isEmpty()) {
        persist();
        emit providersChanged();
    }
    if (!m_selectedID)
        assignSelectedID(m_providers.isEmpty() ? std::nullopt : std::optional<QUuid>(m_providers.first().id));
}

void ProviderStore::persist()
{
    QList<Provider> stored = m_providers;
    if (m_keyringState == KeyringState::Probing || m_keyringState == KeyringState::Available) {
        // A key reaches the file only when no keyring can take it. One the file already holds stays
        // there until the keyring confirmed it holds that very key.
        for (Provider &p : stored) {
            const auto held = m_keyringHolds.constFind(p.id);
            p.apiKey = held != m_keyringHolds.cend() && *held == p.apiKey ? QString() : m_fileKeys.value(p.id);
        }
    }
    // Counted as the file's from now on. A save that fails leaves the file with its older keys; a
    // key is only ever left out once the keyring has confirmed it, so none is lost either way.
    m_fileKeys.clear();
    for (const Provider &p : std::as_const(stored)) {
        if (!p.apiKey.isEmpty())
            m_fileKeys.insert(p.id, p.apiKey);
    }
    ProviderWriter::Job job;
    job.generation = ++m_saveGeneration;
    job.providers = std::move(stored);
    m_writer->submit(std::move(job));
}

ProviderStore::KeyStorage ProviderStore::keyStorage() const
{
    switch (m_keyringState) {
    case KeyringState::Probing:
        return KeyStorage::Unknown;
    case KeyringState::Available:
        return KeyStorage::Keyring;
    case KeyringState::NotUsed:
    case KeyringState::Unavailable:
        break;
    }
    return KeyStorage::SettingsFile;
}

void ProviderStore::useKeyring(Keyring *keyring)
{
    if (m_keyring || !keyring)
        return;
    m_keyring = keyring;
    keyring->setParent(this);
    connect(keyring, &Keyring::keyRead, this, &ProviderStore::handleKeyRead);
    connect(keyring, &Keyring::written, this, &ProviderStore::handleKeyWritten);
    connect(keyring, &Keyring::removed, this, [this](const QUuid &id, Keyring::Outcome outcome) {
        if (outcome == Keyring::Outcome::Done && m_keyringHolds.contains(id))
            m_keyringHolds.insert(id, QString());
    });
    m_keyringState = KeyringState::Probing;
    for (const Provider &p : std::as_const(m_providers)) {
        if (!m_pendingReads.contains(p.id)) {
            m_pendingReads.insert(p.id);
            keyring->read(p.id);
        }
    }
    // With no provider yet, one look tells whether a key added later can go to the keyring.
    if (m_providers.isEmpty())
        keyring->read(QUuid());
    emit keyStorageChanged();
}

bool ProviderStore::waitForKeys(int timeoutMs)
{
    // Without providers the store still learns whether the keyring answers, so that a key added
    // afterwards goes to the right place.
    const auto settled = [this] { return m_keyringState != KeyringState::Probing && m_pendingReads.isEmpty(); };
    if (settled())
        return true;
    QEventLoop loop;
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    const auto check = [&] {
        if (settled())
            loop.quit();
    };
    connect(this, &ProviderStore::keyReady, &loop, check);
    connect(this, &ProviderStore::keyStorageChanged, &loop, check);
    loop.exec();
    return settled();
}

void ProviderStore::whenKeyReady(const QUuid &id, QObject *context, std::function<void()> then)
{
    if (!isKeyPending(id)) {
        then();
        return;
    }
    auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = connect(this, &ProviderStore::keyReady, context, [id, connection, then](const QUuid &ready) {
        if (ready != id)
            return;
        QObject::disconnect(*connection);
        then();
    });
}

void ProviderStore::handleKeyRead(const QUuid &id, Keyring::Outcome outcome, const std::optional<QString> &key)
{
    if (m_keyringState != KeyringState::Probing && m_keyringState != KeyringState::Available)
        return;
    if (outcome == Keyring::Outcome::Unavailable) {
        keyringUnavailable();
        return;
    }
    if (m_keyringState == KeyringState::Probing) {
        m_keyringState = KeyringState::Available;
        emit keyStorageChanged();
        // Keys typed while the keyring was still silent have waited in memory for this.
        for (const Provider &p : std::as_const(m_providers))
            storeKey(p);
    }
    if (!m_pendingReads.remove(id))
        return;
    const QString stored = key.value_or(QString());
    m_keyringHolds.insert(id, stored);
    for (Provider &p : m_providers) {
        if (p.id != id)
            continue;
        // A key in the file is newer than the keyring's: it was kept there while no keyring could be
        // had, and moves over now. So is one the user typed while this read was under way.
        if (p.apiKey.isEmpty() && !stored.isEmpty()) {
            p.apiKey = stored;
            m_keysAnnounced = true;
            if (!m_keysArrived.isActive())
                m_keysArrived.start();
        }
        storeKey(p);
        break;
    }
    emit keyReady(id);
}

void ProviderStore::handleKeyWritten(const QUuid &id, Keyring::Outcome outcome, const QString &key)
{
    if (m_keyringState != KeyringState::Available)
        return;
    if (m_keyringWrites.value(id) == key)
        m_keyringWrites.remove(id);
    if (outcome != Keyring::Outcome::Done) {
        keyringUnavailable();
        return;
    }
    m_keyringHolds.insert(id, key);
    // The file may still hold a copy waiting for this confirmation.
    if (m_fileKeys.contains(id)) {
        m_keysDue = true;
        if (!m_keysArrived.isActive())
            m_keysArrived.start();
    }
}

void ProviderStore::keyringUnavailable()
{
    m_keyringState = KeyringState::Unavailable;
    m_keyringWrites.clear();
    const QSet<QUuid> waiting = std::exchange(m_pendingReads, {});
    // Every key the user has goes where it can be kept: the owner-only file.
    persist();
    emit keyStorageChanged();
    for (const QUuid &id : waiting)
        emit keyReady(id);
}

void ProviderStore::storeKey(const Provider &provider)
{
    if (m_keyringState != KeyringState::Available || isKeyPending(provider.id))
        return;
    const auto held = m_keyringHolds.constFind(provider.id);
    if (held != m_keyringHolds.cend() && *held == provider.apiKey)
        return;
    const auto writing = m_keyringWrites.constFind(provider.id);
    if (writing != m_keyringWrites.cend() && *writing == provider.apiKey)
        return;
    if (provider.apiKey.isEmpty()) {
        m_keyringWrites.remove(provider.id);
        if (held == m_keyringHolds.cend() || held->isEmpty()) {
            m_keyringHolds.insert(provider.id, QString());
            return;
        }
        m_keyring->remove(provider.id);
        return;
    }
    m_keyringWrites.insert(provider.id, provider.apiKey);
    m_keyring->write(provider.id, provider.apiKey);
}

void ProviderStore::announceKeys()
{
    if (std::exchange(m_keysDue, false))
        persist();
    if (std::exchange(m_keysAnnounced, false))
        emit providersChanged();
}
