#include "authorization_codes.h"

#include "pkce.h"

#include <utility>

namespace kestrolan::devservice {

namespace {

// Codes nobody redeems must not pile up; far more than any real sign-in needs.
constexpr qsizetype maximumPending = 10'000;

} // namespace

AuthorizationCodes::AuthorizationCodes(std::chrono::milliseconds lifetime)
    : m_lifetime(lifetime) {}

void AuthorizationCodes::purge(Clock::time_point now) {
    m_codes.removeIf([now](const auto& entry) { return entry.value().expiresAt <= now; });
    m_consents.removeIf([now](const auto& entry) { return entry.value().expiresAt <= now; });
    m_spent.removeIf([now](const auto& entry) { return entry.value().forgetAt <= now; });
}

QString AuthorizationCodes::issue(const QString& accountId, const QString& challenge) {
    const auto code = Pkce::randomText(32);
    const auto now = Clock::now();
    std::lock_guard lock(m_mutex);
    if (m_codes.size() >= maximumPending)
        purge(now);
    if (m_codes.size() >= maximumPending)
        m_codes.erase(m_codes.begin());
    m_codes.insert(code, Code{accountId, challenge, now + m_lifetime});
    return code;
}

std::variant<QString, AuthorizationCodes::Failure, AuthorizationCodes::Replay>
AuthorizationCodes::redeem(const QString& code, const QString& verifier) {
    const auto now = Clock::now();
    std::optional<Code> entry;
    {
        std::lock_guard lock(m_mutex);
        if (const auto spent = m_spent.find(code); spent != m_spent.end()) {
            if (spent->forgetAt > now) {
                spent->replayed = true;
                return Replay{std::exchange(spent->tokens, {})};
            }
            m_spent.erase(spent);
        }
        const auto it = m_codes.constFind(code);
        if (it == m_codes.constEnd())
            return Failure::unknown;
        entry = *it;
        m_codes.erase(it);
        if (m_spent.size() >= maximumPending)
            purge(now);
        if (m_spent.size() >= maximumPending)
            m_spent.erase(m_spent.begin());
        m_spent.insert(code, Spent{.forgetAt = now + m_lifetime});
    }
    if (now >= entry->expiresAt)
        return Failure::expired;
    if (Pkce::challengeFor(verifier) != entry->challenge)
        return Failure::verifierMismatch;
    return entry->accountId;
}

bool AuthorizationCodes::recordToken(const QString& code, const QString& tokenDigest) {
    std::lock_guard lock(m_mutex);
    const auto spent = m_spent.find(code);
    if (spent == m_spent.end())
        return true; // forgotten already: nothing can replay it any more
    if (spent->replayed)
        return false;
    spent->tokens.append(tokenDigest);
    return true;
}

QString AuthorizationCodes::beginConsent(const QString& state, const QString& challenge,
                                         const QString& email) {
    const auto id = Pkce::randomText(24);
    const auto now = Clock::now();
    std::lock_guard lock(m_mutex);
    if (m_consents.size() >= maximumPending)
        purge(now);
    if (m_consents.size() >= maximumPending)
        m_consents.erase(m_consents.begin());
    m_consents.insert(id, PendingConsent{Consent{state, challenge, email}, now + m_lifetime});
    return id;
}

std::optional<AuthorizationCodes::Consent> AuthorizationCodes::takeConsent(const QString& id) {
    std::lock_guard lock(m_mutex);
    const auto it = m_consents.constFind(id);
    if (it == m_consents.constEnd())
        return std::nullopt;
    const auto entry = *it;
    m_consents.erase(it);
    if (Clock::now() >= entry.expiresAt)
        return std::nullopt;
    return entry.consent;
}

} // namespace kestrolan::devservice
