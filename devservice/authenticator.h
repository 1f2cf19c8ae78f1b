#pragma once

#include "account.h"

#include <QString>
#include <optional>

namespace kestrolan::devservice {

class AccountStore;
class SessionTokens;
struct ApiRequest;

// Turns the bearer token of a request into its account, or refuses with 401.
class Authenticator {
public:
    Authenticator(SessionTokens& tokens, AccountStore& accounts);

    // Throws ApiException (401) for a missing, unknown, expired or revoked token.
    Account require(const ApiRequest& request);

    static std::optional<QString> bearerToken(const ApiRequest& request);

private:
    SessionTokens& m_tokens;
    AccountStore& m_accounts;
};

} // namespace kestrolan::devservice
