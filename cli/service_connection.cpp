#include "service_connection.h"

#include "account/keychain_token_store.h"
#include "platform/settings_defaults.h"

namespace kestrolan::cli {

ServiceConnection::ServiceConnection()
    : m_configuration(
          Configuration::load(QProcessEnvironment::systemEnvironment(), SettingsDefaults()))
    , m_tokens(KeychainTokenStore::forApp(m_configuration.origin()))
    , m_client(std::make_unique<APIClient>(m_configuration, m_tokens)) {
    m_client->setOnUnauthorized([this] { m_signedOut = true; });
}

ServiceConnection::~ServiceConnection() = default;

} // namespace kestrolan::cli
