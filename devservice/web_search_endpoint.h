#pragma once

#include "api_request.h"
#include "api_response.h"

#include <cstdint>

namespace kestrolan::devservice {

class Authenticator;
class Ledger;
class SearchProvider;

// POST /api/web/search {"query"}: a billed search. The price is held first, charged when the
// search answers and released when it fails.
class WebSearchEndpoint {
public:
    static constexpr std::uint64_t pricePerSearch = 5'000; // $0.005

    WebSearchEndpoint(Authenticator& authenticator, Ledger& ledger, SearchProvider& provider);

    ApiResponse handle(const ApiRequest& request);

private:
    Authenticator& m_authenticator;
    Ledger& m_ledger;
    SearchProvider& m_provider;
};

} // namespace kestrolan::devservice
