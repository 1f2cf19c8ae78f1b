#pragma once

#include <QHash>
#include <QString>
#include <chrono>
#include <mutex>
#include <optional>
#include <variant>

namespace kestrolan::devservice {

// One-time sign-in codes, each bound to the account that approved it and to the PKCE
// challenge of the attempt, plus the consent pages waiting for Allow or Deny. Kept in memory:
// a code outlives neither its lifetime nor the process.
class AuthorizationCodes {
public:
    enum class Failure { unknown, expired, verifierMismatch };

    struct Consent {
        QString state;
        QString challenge;
    };

    explicit AuthorizationCodes(std::chrono::milliseconds lifetime);

    QString issue(const QString& accountId, const QString& challenge);
    // Consumes the code whatever the outcome, so a code can be tried once only. Returns the
    // account id on success.
    std::variant<QString, Failure> redeem(const QString& code, const QString& verifier);

    QString beginConsent(const QString& state, const QString& challenge);
    std::optional<Consent> takeConsent(const QString& id);

private:
    using Clock = std::chrono::steady_clock;

    struct Code {
        QString accountId;
        QString challenge;
        Clock::time_point expiresAt;
    };
    struct PendingConsent {
        Consent consent;
        Clock::time_point expiresAt;
    };

    void purge(Clock::time_point now);

    std::chrono::milliseconds m_lifetime;
    std::mutex m_mutex;
    QHash<QString, Code> m_codes;
    QHash<QString, PendingConsent> m_consents;
};

} // namespace kestrolan::devservice
