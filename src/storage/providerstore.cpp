#include "storage/providerstore.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

ProviderStore::ProviderStore(QObject *parent)
    : QObject(parent)
    , m_settings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"))
{
    load();
}

void ProviderStore::load()
{
    const QByteArray stored = m_settings.value(providersKey).toByteArray();
    if (!stored.isEmpty()) {
        if (auto decoded = decodeJson<QList<Provider>>(stored)) {
            m_providers = std::move(*decoded);
        } else {
            // The stored bytes stay where they are, but the first save would replace them with a
            // shorter list: a copy under another key keeps the user's providers and keys.
            QString key = unreadableKey;
            const QVariant existing = m_settings.value(key);
            if (existing.isValid() && existing.toByteArray() != stored)
                key += u'.' + AtomicFile::asideStamp();
            m_settings.setValue(key, stored);
            m_keptAsideKey = key;
        }
    }

    std::optional<QUuid> selection;
    const QString storedID = m_settings.value(selectedKey).toString();
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
    if (id)
        m_settings.setValue(selectedKey, JsonCoding::uuidText(*id));
    else
        m_settings.remove(selectedKey);
    sync();
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
    m_providers[i] = provider;
    persist();
    emit providersChanged();
}

void ProviderStore::remove(const Provider &provider)
{
    m_providers.removeIf([&](const Provider &p) { return p.id == provider.id; });
    persist();
    emit providersChanged();
    if (m_selectedID && *m_selectedID == provider.id)
        assignSelectedID(m_providers.isEmpty() ? std::nullopt : std::optional<QUuid>(m_providers.first().id));
}

void ProviderStore::merge(const QList<Provider> &incoming)
{
    for (const Provider &provider : incoming) {
        if (const qsizetype i = indexOf(provider.id); i >= 0)
            m_providers[i] = provider;
        else
            m_providers.append(provider);
        persist();
    }
    if (!incoming.isEmpty())
        emit providersChanged();
    if (!m_selectedID)
        assignSelectedID(m_providers.isEmpty() ? std::nullopt : std::optional<QUuid>(m_providers.first().id));
}

void ProviderStore::persist()
{
    m_settings.setValue(providersKey, encodeJson(m_providers));
    sync();
    if (m_settings.status() == QSettings::NoError)
        m_lastSaveError.reset();
    else
        m_lastSaveError = tr("The providers could not be saved to %1.").arg(m_settings.fileName());
}

void ProviderStore::sync()
{
    // QSettings keeps the permissions of a file it replaces; made owner-only before the first
    // write, the keys are never readable by others, not even for a moment.
    const QString fileName = m_settings.fileName();
    if (!QFileInfo::exists(fileName) && QDir().mkpath(QFileInfo(fileName).absolutePath())) {
        QFile file(fileName);
        if (file.open(QIODevice::WriteOnly))
            file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }
    m_settings.sync();
    // The preferences file holds every API key in plain text.
    AtomicFile::restrictToOwner(m_settings.fileName());
}
