#pragma once

#include "model/provider.h"
#include "storage/keyring.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <QUuid>

#include <functional>
#include <memory>
#include <optional>

class ProviderWriter;

// The user's providers and which one is selected, kept in the preferences store
// (QSettings "Verbolt"/"Verbolt": "providers.v1" holds the compact JSON array, and
// "selectedProviderID.v1" the selected id in upper case).
//
// Saving happens on a writer thread (see ProviderWriter): every change hands the list over and
// returns at once, however long the list, and the file ends with the newest state. waitForSaved()
// (also run by the destructor and when the application is about to quit) blocks until everything
// handed over is on disk. A failed write leaves the old file whole and memory keeps the change;
// lastSaveError() says why, and lastSaveErrorChanged() tells a window so it can tell the user.
//
// A stored list that cannot be decoded loads as empty, and its bytes are first copied to
// "providers.v1.unreadable" (or, if that key already holds other bytes, a key with a
// timestamp suffix) so the first save cannot destroy the user's providers and API keys;
// keptAsideKey() names the key for a window that wants to tell the user.
//
// With the desktop keyring in use (useKeyring()), the API keys live there, one entry per provider
// id, and the preferences file holds the providers without them. The keyring is never waited for:
// keys are read in the background, and until a provider's key has arrived keyPending() says so. A
// key found in the file moves to the keyring and leaves the file only once the keyring confirmed
// it stored it; no key is written to the file while the keyring works. Without a keyring (no
// Secret Service, a collection the user will not unlock) every key stays in the owner-only file.
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
    // Waits briefly for keys still on their way to the keyring (see finishKeyringWrites), then for
    // the last save.
    ~ProviderStore() override;

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
    // Replaces by id in place or appends, saving once; selects the first when nothing was.
    void merge(const QList<Provider> &incoming);

    // Where the keys are kept: Unknown while the keyring has not answered yet.
    enum class KeyStorage { SettingsFile, Unknown, Keyring };
    // Starts keeping the keys in keyring, which the store owns from now on, and reads every
    // provider's key from it in the background. Call once, right after construction.
    void useKeyring(Keyring *keyring);
    KeyStorage keyStorage() const;
    // True while the key of provider id is still being read from the keyring.
    bool isKeyPending(const QUuid &id) const { return m_pendingReads.contains(id); }
    // Waits, running the event loop, until the keyring confirmed every key on its way to it; a key
    // not confirmed within timeoutMs is written to the file instead. The destructor does this too,
    // so quitting right after a key was typed never loses it.
    void finishKeyringWrites(int timeoutMs);
    // Waits, running the event loop, until every provider's key has been read from the keyring or
    // the keyring turned out to be unavailable, for at most timeoutMs; false when time ran out with
    // keys still pending. For tools that cannot go on without the keys: the windows never wait.
    bool waitForKeys(int timeoutMs);
    // Runs then once provider id's key can be had (at once if it can now), unless context is gone.
    void whenKeyReady(const QUuid &id, QObject *context, std::function<void()> then);

    // The preferences key holding undecodable bytes found at start, if any.
    std::optional<QString> keptAsideKey() const { return m_keptAsideKey; }
    // Why the last save that finished could not be written, or nothing when it was.
    std::optional<QString> lastSaveError() const { return m_lastSaveError; }
    // Blocks until every save handed to the writer is on disk (or has failed), and takes in how
    // they went before it returns.
    void waitForSaved();
    // The preferences file, for telling the user where their providers live.
    QString settingsFileName() const { return m_fileName; }

signals:
    // Emitted after every change of the list.
    void providersChanged();
    // Emitted when the selected id changes.
    void selectedIDChanged();
    // Emitted when the keys turn out to live in the keyring, or in the file for want of one.
    void keyStorageChanged();
    // Emitted when the wait for provider id's key is over, with or without a key.
    void keyReady(const QUuid &id);
    // Emitted when a save failed where the one before had not, or succeeded after one that failed.
    void lastSaveErrorChanged();

private:
    void load();
    void persist();
    void assignSelectedID(const std::optional<QUuid> &id);
    qsizetype indexOf(const QUuid &id) const;
    void takeSaveOutcomes();
    void handleKeyRead(const QUuid &id, Keyring::Outcome outcome, const std::optional<QString> &key);
    void handleKeyWritten(const QUuid &id, Keyring::Outcome outcome, const QString &key);
    void keyringUnavailable();
    void storeKey(const Provider &provider);
    void announceKeys();

    enum class KeyringState { NotUsed, Probing, Available, Unavailable };

    QString m_fileName;
    QList<Provider> m_providers;
    std::optional<QUuid> m_selectedID;
    std::optional<QString> m_keptAsideKey;
    std::optional<QString> m_lastSaveError;

    Keyring *m_keyring = nullptr;
    KeyringState m_keyringState = KeyringState::NotUsed;
    QHash<QUuid, QString> m_fileKeys;      // the keys the preferences file holds now
    QHash<QUuid, QString> m_keyringHolds;  // what the keyring confirmed it holds ("" for nothing)
    QHash<QUuid, QString> m_keyringWrites; // keys on their way to the keyring
    QSet<QUuid> m_pendingReads;
    // Keys arrive one by one: the list is announced and saved once per batch, not once per key.
    QTimer m_keysArrived;
    bool m_keysDue = false;       // the file holds keys the keyring has confirmed since
    bool m_keysAnnounced = false; // keys arrived that the list does not show yet
    quint64 m_saveGeneration = 0;
    std::unique_ptr<ProviderWriter> m_writer;
};
