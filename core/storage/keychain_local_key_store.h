#pragma once

#include "storage/local_key_store.h"

#include <QString>
#include <memory>

namespace kestrolan {

class KeychainAccess;

// The data keys in the platform secret store (Secret Service), one binary entry per account,
// served through the process-wide KeyCache.
//
// The secret store is driven from the main thread's event loop: called from another thread,
// the call is handed to the main thread and waited for there, so the main thread must not be
// blocked on that caller meanwhile (main-thread code awaits the stores and never blocks).
// Called on the main thread itself, the call spins a nested event loop.
class KeychainLocalKeyStore final : public LocalKeyStore {
public:
    static constexpr auto service = QLatin1StringView("org.kestrolan.mac.local-configuration.v1");

    // Nothing means the system secret store.
    explicit KeychainLocalKeyStore(std::shared_ptr<KeychainAccess> access = nullptr);

    QByteArray key(const LocalAccountContext& context, bool create) const override;
    void deleteKey(const LocalAccountContext& context) const override;

private:
    std::shared_ptr<KeychainAccess> m_access;
};

} // namespace kestrolan
