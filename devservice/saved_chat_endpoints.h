#pragma once

#include "api_request.h"
#include "api_response.h"

namespace kestrolan::devservice {

class Authenticator;
class SavedChatStore;

// /api/chats and /api/chats/{id}: list, load, save and delete. Saving is refused while the
// account has zero data retention on.
class SavedChatEndpoints {
public:
    SavedChatEndpoints(Authenticator& authenticator, SavedChatStore& store);

    ApiResponse list(const ApiRequest& request);
    ApiResponse load(const ApiRequest& request);
    ApiResponse save(const ApiRequest& request);
    ApiResponse remove(const ApiRequest& request);

private:
    Authenticator& m_authenticator;
    SavedChatStore& m_store;
};

} // namespace kestrolan::devservice
