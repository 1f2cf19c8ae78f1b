#pragma once

#include "api_request.h"
#include "api_response.h"

namespace kestrolan::devservice {

class AccountStore;
class FaultInjector;
class Ledger;
class SessionTokens;
class SignInAccount;

// /admin/…, for tests and development (the server answers them on loopback connections only).
// Each acts on the development account unless the body or query names another "email".
class AdminEndpoints {
public:
    AdminEndpoints(AccountStore& accounts, Ledger& ledger, SessionTokens& tokens,
                   FaultInjector& faults, SignInAccount& signInAccount);

    ApiResponse createAccount(const ApiRequest& request); // POST /admin/accounts
    ApiResponse signInAs(const ApiRequest& request);      // POST /admin/sign-in-as
    ApiResponse account(const ApiRequest& request);       // GET  /admin/account
    ApiResponse zeroRetention(const ApiRequest& request); // POST /admin/zero-retention
    ApiResponse balance(const ApiRequest& request);       // POST /admin/balance
    ApiResponse revokeTokens(const ApiRequest& request);  // POST /admin/revoke-tokens
    ApiResponse armFault(const ApiRequest& request);      // POST /admin/fault
    ApiResponse clearFaults(const ApiRequest& request);   // DELETE /admin/fault

private:
    QString accountId(const std::optional<QString>& email);

    AccountStore& m_accounts;
    Ledger& m_ledger;
    SessionTokens& m_tokens;
    FaultInjector& m_faults;
    SignInAccount& m_signInAccount;
};

} // namespace kestrolan::devservice
