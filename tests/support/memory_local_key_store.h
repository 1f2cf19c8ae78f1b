#pragma once

#include "storage/local_account_context.h"
#include "storage/local_key_store.h"
#include "storage/local_privacy_error.h"

#include <QHash>
#include <QRandomGenerator>
#include <atomic>
#include <mutex>

namespace kestrolan::test {

// Data keys kept in memory, for tests whose subject is not the secret store. Keys are random
// like real ones, so records sealed under one store do not open under another.
class MemoryLocalKeyStore final : public LocalKeyStore {
public:
    QByteArray key(const LocalAccountContext& context, bool create) const override {
        std::lock_guard guard(m_mutex);
        const QString id = context.storageID();
        if (const auto found = m_keys.constFind(id); found != m_keys.constEnd())
            return *found;
        if (!create || refuseAll)
            throw LocalPrivacyError(LocalPrivacyError::Kind::unavailable);
        QByteArray fresh(keyLength, Qt::Uninitialized);
        QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(fresh.data()),
                                              keyLength / sizeof(quint32));
        m_keys.insert(id, fresh);
        ++created;
        return fresh;
    }

    void deleteKey(const LocalAccountContext& context) const override {
        std::lock_guard guard(m_mutex);
        m_keys.remove(context.storageID());
    }

    bool hasKey(const LocalAccountContext& context) const {
        std::lock_guard guard(m_mutex);
        return m_keys.contains(context.storageID());
    }

    // How many keys were made.
    mutable std::atomic<int> created = 0;
    // When set, no key is made, as with a secret store that refuses writes.
    std::atomic<bool> refuseAll = false;

private:
    mutable std::mutex m_mutex;
    mutable QHash<QString, QByteArray> m_keys;
};

} // namespace kestrolan::test
