#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <optional>

// The desktop keyring (the Secret Service, through QtKeychain), holding one API key per provider
// id under the service "Verbolt". Every operation is asynchronous and reports on the main thread;
// nothing here ever waits for the keyring, which may be slow to start or ask the user to unlock it.
//
// A request that fails because there is no keyring, or because the user would not unlock it,
// reports unavailable: the caller keeps the key elsewhere. A Secret Service without a default
// keyring counts as no keyring for writes: storing there would open the desktop's own window
// asking the user to invent a password for a new keyring, in front of ours, for a key that can
// as well stay in the owner-only settings file. Jobs run one after another in the order they
// were asked for.
class Keyring final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Keyring)

public:
    enum class Outcome { Done, NotFound, Unavailable };

    explicit Keyring(QObject *parent = nullptr);
    ~Keyring() override;

    // The service name every entry is filed under.
    static QString service();

    // Reports keyRead with the stored key, or NotFound when the keyring has none for id.
    void read(const QUuid &id);
    // Reports written once the keyring confirmed it holds key for id.
    void write(const QUuid &id, const QString &key);
    // Reports removed; an entry that was not there counts as removed.
    void remove(const QUuid &id);

private:
    struct Pending
    {
        enum class Kind { Read, Write, Remove } kind;
        QUuid id;
        QString key;
    };
    void run(const Pending &job);
    void startRead(const QUuid &id);
    void startWrite(const QUuid &id, const QString &key);
    void startRemove(const QUuid &id);
    void askForDefaultKeyring();

    // Unknown until the Secret Service said whether it has a default keyring; jobs asked for
    // meanwhile wait in order.
    std::optional<bool> m_hasDefault;
    QList<Pending> m_waiting;

signals:
    // Emitted when a read finished; key is set only when outcome is Done.
    void keyRead(const QUuid &id, Keyring::Outcome outcome, const std::optional<QString> &key);
    // Emitted when a write finished: Done means the keyring holds the key now.
    void written(const QUuid &id, Keyring::Outcome outcome, const QString &key);
    // Emitted when a removal finished.
    void removed(const QUuid &id, Keyring::Outcome outcome);
};
