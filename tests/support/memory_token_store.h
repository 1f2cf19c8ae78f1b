#pragma once

#include "account/token_store.h"
#include "service/client_error.h"

#include <QCoroTimer>
#include <chrono>

namespace kestrolan::test {

// An in-memory token store that records what was done to it. Each operation can be made to
// take a while, so that tests see operations interleave as they do with a real keychain.
class MemoryTokenStore final : public TokenStore {
public:
    explicit MemoryTokenStore(ServerOrigin origin, std::optional<QString> token = {})
        : m_origin(std::move(origin))
        , m_token(std::move(token)) {}

    ServerOrigin origin() const override { return m_origin; }

    QCoro::Task<std::optional<QString>> read() override {
        co_await pause();
        log.append(QStringLiteral("read"));
        // GCC 12 moves from a member named in co_return; return a copy.
        std::optional<QString> token = m_token;
        co_return token;
    }
    QCoro::Task<void> write(QString token) override {
        co_await pause();
        if (refuseWrites) {
            log.append(QStringLiteral("refused write ") + token);
            throw ClientError::keychain(*refuseWrites);
        }
        log.append(QStringLiteral("write ") + token);
        m_token = std::move(token);
    }
    QCoro::Task<void> remove() override {
        co_await pause();
        log.append(QStringLiteral("remove"));
        m_token.reset();
    }
    QCoro::Task<bool> removeIfMatching(QString token) override {
        co_await pause();
        log.append(QStringLiteral("removeIfMatching ") + token);
        if (m_token != token)
            co_return false;
        m_token.reset();
        ++removals;
        co_return true;
    }

    const std::optional<QString>& token() const { return m_token; }

    std::chrono::milliseconds delay{0};
    // When set, every write fails with the keychain error of this status, as a locked keyring
    // refuses writes.
    std::optional<qint32> refuseWrites;
    QStringList log;
    int removals = 0;

private:
    QCoro::Task<void> pause() {
        if (delay.count() > 0)
            co_await QCoro::sleepFor(delay);
    }

    ServerOrigin m_origin;
    std::optional<QString> m_token;
};

} // namespace kestrolan::test
