#include "account/keychain_token_store.h"

#include "platform/system_keychain_access.h"

namespace kestrolan {

KeychainTokenStore::KeychainTokenStore(ServerOrigin origin, QString service, QString legacyAccount,
                                       std::shared_ptr<KeychainAccess> access)
    : m_origin(std::move(origin))
    , m_service(std::move(service))
    , m_legacyAccount(std::move(legacyAccount))
    , m_access(std::move(access)) {}

std::shared_ptr<KeychainTokenStore> KeychainTokenStore::forApp(ServerOrigin origin) {
    return std::make_shared<KeychainTokenStore>(std::move(origin), QString(appService),
                                                QString(appLegacyAccount),
                                                std::make_shared<SystemKeychainAccess>());
}

QString KeychainTokenStore::account() const {
    return m_legacyAccount % u'|' % m_origin.key();
}

bool KeychainTokenStore::migratesLegacy() const {
    return m_origin == ServerOrigin::production();
}

QCoro::Task<std::optional<QString>> KeychainTokenStore::read() {
    const auto turn = co_await m_gate.enter();
    auto token = co_await readLocked();
    co_return token;
}

QCoro::Task<void> KeychainTokenStore::write(QString token) {
    const auto turn = co_await m_gate.enter();
    co_await writeLocked(std::move(token));
}

QCoro::Task<void> KeychainTokenStore::remove() {
    const auto turn = co_await m_gate.enter();
    co_await removeLocked();
}

QCoro::Task<bool> KeychainTokenStore::removeIfMatching(QString token) {
    const auto turn = co_await m_gate.enter();
    // Past the cache: another process sharing the entry (kestrolan-cli, the app) may have
    // stored a newer token since, which a stale 401 must not remove.
    m_isCached = false;
    const auto current = co_await readLocked();
    if (current != token)
        co_return false;
    co_await removeLocked();
    co_return true;
}

QCoro::Task<std::optional<QString>> KeychainTokenStore::readLocked() {
    if (m_isCached) {
        // Copy first: GCC 12 moves from a member named in co_return.
        std::optional<QString> cached = m_cached;
        co_return cached;
    }
    const auto stored = co_await m_access->read(m_service, account());
    if (stored) {
        std::optional<QString> token = QString::fromUtf8(*stored);
        m_cached = token;
        m_isCached = true;
        co_return token;
    }
    if (migratesLegacy()) {
        const auto legacy = co_await m_access->read(m_service, m_legacyAccount);
        if (legacy) {
            std::optional<QString> token = QString::fromUtf8(*legacy);
            // Moves the entry: the write also removes the legacy one.
            co_await writeLocked(*token);
            co_return token;
        }
    }
    m_cached.reset();
    m_isCached = true;
    co_return std::nullopt;
}

QCoro::Task<void> KeychainTokenStore::writeLocked(QString token) {
    // Until the keychain has answered, the entry may hold the old or the new token.
    m_isCached = false;
    m_cached.reset();
    co_await m_access->write(token.toUtf8(), m_service, account());
    if (migratesLegacy())
        co_await m_access->remove(m_service, m_legacyAccount);
    m_cached = std::move(token);
    m_isCached = true;
}

QCoro::Task<void> KeychainTokenStore::removeLocked() {
    m_isCached = false;
    m_cached.reset();
    co_await m_access->remove(m_service, account());
    if (migratesLegacy())
        co_await m_access->remove(m_service, m_legacyAccount);
    m_isCached = true;
}

} // namespace kestrolan
