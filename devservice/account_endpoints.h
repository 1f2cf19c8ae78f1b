#pragma once

#include "api_request.h"
#include "api_response.h"

namespace kestrolan::devservice {

class Authenticator;
class Catalog;

// GET /api/account (signed in) and GET /api/catalog (public).
class AccountEndpoints {
public:
    AccountEndpoints(Authenticator& authenticator, const Catalog& catalog);

    ApiResponse account(const ApiRequest& request);
    ApiResponse catalog(const ApiRequest& request);

private:
    Authenticator& m_authenticator;
    const Catalog& m_catalog;
};

} // namespace kestrolan::devservice
