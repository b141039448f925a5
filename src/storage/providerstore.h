#pragma once

#include "model/provider.h"

#include <QList>
#include <QObject>
#include <QSettings>
#include <QUuid>

#include <optional>

// The user's providers and which one is selected, kept in the preferences store
// (QSettings "Verbolt"/"Verbolt": "providers.v1" holds the compact JSON array, and
// "selectedProviderID.v1" the selected id in upper case). Every change is written at once;
// there is nothing to flush at quit. Failures to write are silent: memory keeps the change.
//
// A stored list that cannot be decoded loads as empty, and its bytes are first copied to
// "providers.v1.unreadable" (or, if that key already holds other bytes, a key with a
// timestamp suffix) so the first save cannot destroy the user's providers and API keys;
// keptAsideKey() names the key for a window that wants to tell the user.
class ProviderStore final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ProviderStore)
    Q_PROPERTY(QList<Provider> providers READ providers WRITE setProviders NOTIFY providersChanged)
    Q_PROPERTY(std::optional<QUuid> selectedID READ selectedID WRITE setSelectedID NOTIFY selectedIDChanged)

public:
    static constexpr QLatin1StringView providersKey{"providers.v1"};
    static constexpr QLatin1StringView selectedKey{"selectedProviderID.v1"};
    static constexpr QLatin1StringView unreadableKey{"providers.v1.unreadable"};

    // Loads both keys; always writes the selection key back (see the selection rules).
    explicit ProviderStore(QObject *parent = nullptr);

    const QList<Provider> &providers() const { return m_providers; }
    // Replaces the list and saves it.
    void setProviders(const QList<Provider> &providers);

    std::optional<QUuid> selectedID() const { return m_selectedID; }
    // Stores the id (even one that names no provider) or removes the key when absent.
    void setSelectedID(const std::optional<QUuid> &id);

    // The first provider whose id is the selected one, or nothing.
    std::optional<Provider> selected() const;
    // The first provider with that id, or nullptr. The pointer is into the list: it is valid until
    // the list next changes.
    const Provider *find(const QUuid &id) const;

    // Appends (duplicates allowed) and selects it when nothing was selected.
    void add(const Provider &provider);
    // Replaces the first provider with the same id; an unknown id is a no-op.
    void update(const Provider &provider);
    // Removes every provider with that id; the selection moves to the first one left if it was removed.
    void remove(const Provider &provider);
    // Replaces by id in place or appends, saving after each; selects the first when nothing was.
    void merge(const QList<Provider> &incoming);

    // The preferences key holding undecodable bytes found at start, if any.
    std::optional<QString> keptAsideKey() const { return m_keptAsideKey; }
    // Why the last write of the list could not be saved, or nothing when it was.
    std::optional<QString> lastSaveError() const { return m_lastSaveError; }
    // The preferences file, for telling the user where their providers live.
    QString settingsFileName() const { return m_settings.fileName(); }

signals:
    // Emitted after every change of the list.
    void providersChanged();
    // Emitted when the selected id changes.
    void selectedIDChanged();

private:
    void load();
    void persist();
    void assignSelectedID(const std::optional<QUuid> &id);
    qsizetype indexOf(const QUuid &id) const;
    void sync();

    QSettings m_settings;
    QList<Provider> m_providers;
    std::optional<QUuid> m_selectedID;
    std::optional<QString> m_keptAsideKey;
    std::optional<QString> m_lastSaveError;
};
