#pragma once

#include "options.h"

#include <QLockFile>
#include <QString>
#include <atomic>
#include <memory>
#include <optional>

namespace kestrolan::devservice {

class AccountEndpoints;
class AccountStore;
class AdminEndpoints;
class AuthEndpoints;
class Authenticator;
class AuthorizationCodes;
class BugReportEndpoint;
class Catalog;
class ChatEndpoint;
class Database;
class FaultInjector;
class HttpClient;
class HttpServer;
class Ledger;
class SavedChatEndpoints;
class SavedChatStore;
class SearchProvider;
class SessionTokens;
class SignInAccount;
class WebSearchEndpoint;

// The whole service, built from the options: storage, endpoints and the HTTP server.
class Service {
public:
    // Opens the data directory and binds the address; throws std::runtime_error with a message
    // for the user.
    explicit Service(const Options& options);
    ~Service();

    quint16 port() const { return m_port; }
    QString baseUrl() const;
    // Serves until stop(); returns false when serving failed.
    bool run();
    // Safe from any thread: ends streams in progress (their holds are released) and makes run()
    // return.
    void stop();

private:
    void addRoutes();

    Options m_options;
    std::atomic<bool> m_stopping{false};
    quint16 m_port = 0;
    std::unique_ptr<QLockFile> m_lock;
    std::unique_ptr<Database> m_database;
    std::unique_ptr<Catalog> m_catalog;
    std::unique_ptr<AccountStore> m_accounts;
    std::unique_ptr<Ledger> m_ledger;
    std::unique_ptr<SessionTokens> m_tokens;
    std::unique_ptr<AuthorizationCodes> m_codes;
    std::unique_ptr<SignInAccount> m_signInAccount;
    std::unique_ptr<SavedChatStore> m_chats;
    std::unique_ptr<HttpClient> m_http;
    std::unique_ptr<SearchProvider> m_search;
    std::unique_ptr<FaultInjector> m_faults;
    std::unique_ptr<Authenticator> m_authenticator;
    std::unique_ptr<AuthEndpoints> m_auth;
    std::unique_ptr<AccountEndpoints> m_accountEndpoints;
    std::unique_ptr<ChatEndpoint> m_chat;
    std::unique_ptr<SavedChatEndpoints> m_chatEndpoints;
    std::unique_ptr<WebSearchEndpoint> m_webSearch;
    std::unique_ptr<BugReportEndpoint> m_bugReports;
    std::unique_ptr<AdminEndpoints> m_admin;
    std::unique_ptr<HttpServer> m_server;
};

} // namespace kestrolan::devservice
