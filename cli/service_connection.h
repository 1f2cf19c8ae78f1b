#pragma once

#include "service/api_client.h"
#include "service/configuration.h"

#include <memory>

namespace kestrolan {
class KeychainTokenStore;
}

namespace kestrolan::cli {

// The service client exactly as the desktop app builds it: the address from the environment,
// then the "baseURL" default; the token in the same keychain entry, so that signing in with
// either signs in the other.
class ServiceConnection {
public:
    // Throws ClientError::configuration for an unusable address.
    ServiceConnection();
    ~ServiceConnection();

    const Configuration& configuration() const { return m_configuration; }
    const std::shared_ptr<KeychainTokenStore>& tokens() const { return m_tokens; }
    APIClient& client() { return *m_client; }
    // True once the service refused the token with 401 and the client removed it.
    bool wasSignedOut() const { return m_signedOut; }

private:
    Configuration m_configuration;
    std::shared_ptr<KeychainTokenStore> m_tokens;
    std::unique_ptr<APIClient> m_client;
    bool m_signedOut = false;
};

} // namespace kestrolan::cli
