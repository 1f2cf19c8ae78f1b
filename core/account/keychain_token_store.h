#pragma once

#include "account/token_store.h"
#include "support/async_gate.h"

#include <memory>

namespace kestrolan {

class KeychainAccess;

// The bearer token in the platform keychain, one entry per server origin. An actor: its
// operations run one at a time in arrival order. The last token read or written is cached so
// that requests do not reach the keychain each time; a failed write or removal forgets the
// cache, because the keychain may then hold either value.
class KeychainTokenStore final : public TokenStore {
public:
    static constexpr auto appService = QLatin1StringView("org.kestrolan.mac");
    static constexpr auto appLegacyAccount = QLatin1StringView("desktop-session");

    KeychainTokenStore(ServerOrigin origin, QString service, QString legacyAccount,
                       std::shared_ptr<KeychainAccess> access);
    // The store the app and kestrolan-cli share: the system keychain, the app's service and
    // legacy account names.
    static std::shared_ptr<KeychainTokenStore> forApp(ServerOrigin origin);

    ServerOrigin origin() const override { return m_origin; }
    // legacy account + "|" + origin key, e.g. "desktop-session|https://api.kestrolan.com:443".
    QString account() const;

    QCoro::Task<std::optional<QString>> read() override;
    QCoro::Task<void> write(QString token) override;
    QCoro::Task<void> remove() override;
    QCoro::Task<bool> removeIfMatching(QString token) override;

private:
    // Tokens kept before they were scoped by origin belonged to production.
    bool migratesLegacy() const;
    QCoro::Task<std::optional<QString>> readLocked();
    QCoro::Task<void> writeLocked(QString token);
    QCoro::Task<void> removeLocked();

    ServerOrigin m_origin;
    QString m_service;
    QString m_legacyAccount;
    std::shared_ptr<KeychainAccess> m_access;
    std::optional<QString> m_cached;
    bool m_isCached = false;
    AsyncGate m_gate;
};

} // namespace kestrolan
