#include "account_endpoints.h"

#include "authenticator.h"
#include "catalog.h"

namespace kestrolan::devservice {

AccountEndpoints::AccountEndpoints(Authenticator& authenticator, const Catalog& catalog)
    : m_authenticator(authenticator)
    , m_catalog(catalog) {}

ApiResponse AccountEndpoints::account(const ApiRequest& request) {
    return ApiResponse::json(200, m_authenticator.require(request).toJson());
}

ApiResponse AccountEndpoints::catalog(const ApiRequest&) {
    return ApiResponse::json(200, m_catalog.toJson());
}

} // namespace kestrolan::devservice
