#pragma once

#include "api_request.h"
#include "api_response.h"

#include <QString>

namespace kestrolan::devservice {

class AccountStore;
class AuthorizationCodes;
class Authenticator;
class SessionTokens;
class SignInAccount;

// Browser sign-in (the consent page and its redirect to the app's callback URL), the code
// exchange for a bearer token, and logout.
class AuthEndpoints {
public:
    static inline const QString callbackUrl = QStringLiteral("kestrolan://auth/callback");

    AuthEndpoints(AuthorizationCodes& codes, SessionTokens& tokens, AccountStore& accounts,
                  SignInAccount& signInAccount, Authenticator& authenticator, bool autoApprove);

    // GET /desktop/authorize?state=…&code_challenge=…&code_challenge_method=S256
    ApiResponse authorize(const ApiRequest& request);
    // POST /desktop/authorize (the page's Allow and Deny buttons)
    ApiResponse decide(const ApiRequest& request);
    // POST /api/desktop/token
    ApiResponse exchange(const ApiRequest& request);
    // POST /api/logout
    ApiResponse logout(const ApiRequest& request);

private:
    ApiResponse approve(const QString& state, const QString& challenge, const QString& email);

    AuthorizationCodes& m_codes;
    SessionTokens& m_tokens;
    AccountStore& m_accounts;
    SignInAccount& m_signInAccount;
    Authenticator& m_authenticator;
    bool m_autoApprove;
};

} // namespace kestrolan::devservice
