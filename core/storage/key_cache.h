#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <mutex>
#include <optional>

namespace kestrolan {

// The data keys read from the key store, kept for the life of the process and shared by all
// accounts, so that the secret store is asked once per account. Key-store calls are made while
// the lock is held, so two threads never create two keys for one account.
class KeyCache {
public:
    static KeyCache& shared();

    // Takes the lock. On the main thread the event loop keeps running while it waits, since the
    // holder may be waiting for a secret-store call that only the main thread can make.
    std::unique_lock<std::timed_mutex> lock();

    // The three below need the lock held.
    std::optional<QByteArray> cached(const QString& storageID) const;
    void store(const QString& storageID, const QByteArray& key);
    void drop(const QString& storageID);

private:
    KeyCache() = default;

    std::timed_mutex m_mutex;
    QHash<QString, QByteArray> m_keys;
};

} // namespace kestrolan
