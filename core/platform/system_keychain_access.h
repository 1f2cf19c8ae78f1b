#pragma once

#include "platform/keychain_access.h"

#include <chrono>

namespace kestrolan {

// The Secret Service (gnome-keyring, KWallet) through QtKeychain. A locked keyring may answer
// a read with "not found" and may put up an unlock prompt that nobody answers, so every call
// has a time-out, and running out of time is a keychain error like any other.
//
// Main thread only. Calls of all instances run one at a time, in order. A call that times out
// while still queued is dropped without ever reaching the keyring; one that timed out while
// running cannot be called back and holds up the calls after it until the Secret Service
// answers it (a write may then still land: the token store forgets its cache on any failure).
class SystemKeychainAccess final : public KeychainAccess {
public:
    static constexpr std::chrono::milliseconds defaultTimeout{std::chrono::seconds(30)};
    // The status of the keychain error for a call that ran out of time.
    static constexpr qint32 timedOutStatus = -1;

    explicit SystemKeychainAccess(std::chrono::milliseconds timeout = defaultTimeout);

    QCoro::Task<std::optional<QByteArray>> read(QString service, QString account) override;
    QCoro::Task<void> write(QByteArray data, QString service, QString account) override;
    QCoro::Task<void> remove(QString service, QString account) override;

private:
    std::chrono::milliseconds m_timeout;
};

} // namespace kestrolan
