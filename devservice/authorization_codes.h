#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <chrono>
#include <mutex>
#include <optional>
#include <variant>

namespace kestrolan::devservice {

// One-time sign-in codes, each bound to the account that approved it and to the PKCE
// challenge of the attempt, plus the consent pages waiting for Allow or Deny. Kept in memory:
// a code outlives neither its lifetime nor the process.
//
// A spent code is remembered for one more lifetime with the tokens issued from it: a code
// presented twice has leaked, so those tokens must be revoked.
class AuthorizationCodes {
public:
    enum class Failure { unknown, expired, verifierMismatch };

    // A spent code presented again; `tokens` are the digests of the tokens issued from it that
    // the caller must revoke now.
    struct Replay {
        QStringList tokens;
    };

    struct Consent {
        QString state;
        QString challenge;
        QString email; // the account the page offers
    };

    explicit AuthorizationCodes(std::chrono::milliseconds lifetime);

    QString issue(const QString& accountId, const QString& challenge);
    // Consumes the code whatever the outcome, so a code can be tried once only. Returns the
    // account id on success.
    std::variant<QString, Failure, Replay> redeem(const QString& code, const QString& verifier);
    // Remembers the token issued from a redeemed code. False when the code was presented again
    // in the meantime: the caller must then revoke the token instead of handing it out.
    bool recordToken(const QString& code, const QString& tokenDigest);

    QString beginConsent(const QString& state, const QString& challenge, const QString& email);
    std::optional<Consent> takeConsent(const QString& id);

private:
    using Clock = std::chrono::steady_clock;

    struct Code {
        QString accountId;
        QString challenge;
        Clock::time_point expiresAt;
    };
    struct Spent {
        QStringList tokens;
        bool replayed = false;
        Clock::time_point forgetAt;
    };
    struct PendingConsent {
        Consent consent;
        Clock::time_point expiresAt;
    };

    void purge(Clock::time_point now);

    std::chrono::milliseconds m_lifetime;
    std::mutex m_mutex;
    QHash<QString, Code> m_codes;
    QHash<QString, Spent> m_spent;
    QHash<QString, PendingConsent> m_consents;
};

} // namespace kestrolan::devservice
