#pragma once

#include "api_request.h"
#include "api_response.h"

#include <memory>

namespace kestrolan::devservice {

class Authenticator;
class Catalog;
class HttpClient;
class Ledger;
struct StreamedChat;

// POST /api/chat: checks the request, holds credit for its worst case, streams the reply and
// settles the charge exactly from the catalog prices (or releases the hold when the reply
// fails or the client goes away).
class ChatEndpoint {
public:
    ChatEndpoint(Authenticator& authenticator, const Catalog& catalog, Ledger& ledger,
                 HttpClient& http);

    ApiResponse handle(const ApiRequest& request);

private:
    static ApiResponse::StreamEnd stream(StreamedChat& chat, ResponseStream& out);

    Authenticator& m_authenticator;
    const Catalog& m_catalog;
    Ledger& m_ledger;
    HttpClient& m_http;
};

} // namespace kestrolan::devservice
