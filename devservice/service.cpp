#include "service.h"

#include "account_endpoints.h"
#include "account_store.h"
#include "admin_endpoints.h"
#include "auth_endpoints.h"
#include "authenticator.h"
#include "authorization_codes.h"
#include "bug_report_endpoint.h"
#include "catalog.h"
#include "chat_endpoint.h"
#include "database.h"
#include "fault_injector.h"
#include "fixture_search.h"
#include "http_client.h"
#include "http_server.h"
#include "ledger.h"
#include "log.h"
#include "saved_chat_endpoints.h"
#include "saved_chat_store.h"
#include "searxng_search.h"
#include "session_tokens.h"
#include "sign_in_account.h"
#include "web_search_endpoint.h"

#include <QDir>
#include <QFile>
#include <stdexcept>

namespace kestrolan::devservice {

namespace {

std::runtime_error failure(const QString& message) {
    return std::runtime_error(message.toStdString());
}

} // namespace

Service::Service(const Options& options)
    : m_options(options) {
    const Catalog::UpstreamDefaults upstream{options.upstreamUrl,
                                             options.upstreamApiKeyEnvironment};
    try {
        m_catalog = std::make_unique<Catalog>(
            options.catalogFile ? Catalog::fromFile(*options.catalogFile, upstream)
                                : Catalog::builtIn());
        m_catalog->addUpstreamModels(options.upstreamModels, upstream);
    } catch (const CatalogError& error) {
        throw failure(QStringLiteral("catalog: ") + QString::fromStdString(error.what()));
    }

    if (!QDir().mkpath(options.dataDirectory))
        throw failure(QStringLiteral("cannot create the data directory ") + options.dataDirectory);
    QFile::setPermissions(options.dataDirectory,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    // One service per directory: a second one would release the first one's holds on start.
    m_lock =
        std::make_unique<QLockFile>(options.dataDirectory + QStringLiteral("/devservice.lock"));
    m_lock->setStaleLockTime(0);
    if (!m_lock->tryLock(0)) {
        qint64 pid = 0;
        QString host;
        QString application;
        m_lock->getLockInfo(&pid, &host, &application);
        throw failure(
            QStringLiteral("the data directory ") + options.dataDirectory +
            QStringLiteral(" is in use by another kestrolan-devservice (process %1)").arg(pid));
    }
    try {
        m_database = std::make_unique<Database>(options.dataDirectory +
                                                QStringLiteral("/devservice.sqlite3"));
    } catch (const DatabaseError& error) {
        throw failure(QString::fromStdString(error.what()));
    }

    m_accounts = std::make_unique<AccountStore>(*m_database);
    m_ledger = std::make_unique<Ledger>(*m_database);
    m_tokens = std::make_unique<SessionTokens>(*m_database);
    m_codes = std::make_unique<AuthorizationCodes>(options.codeLifetime);
    m_chats = std::make_unique<SavedChatStore>(*m_database);
    m_http = std::make_unique<HttpClient>();
    if (options.searchUpstream)
        m_search = std::make_unique<SearxngSearch>(*options.searchUpstream, *m_http);
    else
        m_search = std::make_unique<FixtureSearch>();
    m_faults = std::make_unique<FaultInjector>();

    m_accounts->seedDevelopmentAccount(options.seedBalance);
    if (const auto released = m_ledger->releaseOpenHolds(); released > 0)
        qCInfo(serviceLog) << "Released" << released << "holds left by the previous run";

    m_authenticator = std::make_unique<Authenticator>(*m_tokens, *m_accounts);
    m_signInAccount = std::make_unique<SignInAccount>(AccountStore::developmentEmail);
    m_auth = std::make_unique<AuthEndpoints>(*m_codes, *m_tokens, *m_accounts, *m_signInAccount,
                                             *m_authenticator, options.autoApprove);
    m_accountEndpoints = std::make_unique<AccountEndpoints>(*m_authenticator, *m_catalog);
    m_chat = std::make_unique<ChatEndpoint>(*m_authenticator, *m_catalog, *m_ledger, *m_http);
    m_chatEndpoints = std::make_unique<SavedChatEndpoints>(*m_authenticator, *m_chats);
    m_webSearch = std::make_unique<WebSearchEndpoint>(*m_authenticator, *m_ledger, *m_search);
    m_bugReports = std::make_unique<BugReportEndpoint>(*m_authenticator, *m_database);
    m_admin = std::make_unique<AdminEndpoints>(*m_accounts, *m_ledger, *m_tokens, *m_faults,
                                               *m_signInAccount);

    m_server = std::make_unique<HttpServer>(*m_faults, m_stopping);
    addRoutes();
    const auto port = m_server->bind(options.host, options.port);
    if (!port)
        throw failure(QStringLiteral("cannot listen on ") + options.urlHost() + u':' +
                      QString::number(options.port) +
                      QStringLiteral(" (address in use or not available)"));
    m_port = *port;
}

Service::~Service() {
    // Endpoints and stores go before the database that their work runs on.
    m_server.reset();
}

QString Service::baseUrl() const {
    return QStringLiteral("http://") + m_options.urlHost() + u':' + QString::number(m_port);
}

void Service::addRoutes() {
    using Access = HttpServer::Access;
    auto& server = *m_server;
    const auto bind = [](auto* object, auto method) {
        return [object, method](const ApiRequest& request) { return (object->*method)(request); };
    };

    server.route("GET", "/desktop/authorize", bind(m_auth.get(), &AuthEndpoints::authorize));
    server.route("POST", "/desktop/authorize", bind(m_auth.get(), &AuthEndpoints::decide));
    server.route("POST", "/api/desktop/token", bind(m_auth.get(), &AuthEndpoints::exchange));
    server.route("POST", "/api/logout", bind(m_auth.get(), &AuthEndpoints::logout));
    server.route("GET", "/api/account", bind(m_accountEndpoints.get(), &AccountEndpoints::account));
    server.route("GET", "/api/catalog", bind(m_accountEndpoints.get(), &AccountEndpoints::catalog));
    server.route("POST", "/api/chat", bind(m_chat.get(), &ChatEndpoint::handle));
    server.route("GET", "/api/chats", bind(m_chatEndpoints.get(), &SavedChatEndpoints::list));
    server.route("GET", "/api/chats/([^/]+)",
                 bind(m_chatEndpoints.get(), &SavedChatEndpoints::load));
    server.route("PUT", "/api/chats/([^/]+)",
                 bind(m_chatEndpoints.get(), &SavedChatEndpoints::save));
    server.route("DELETE", "/api/chats/([^/]+)",
                 bind(m_chatEndpoints.get(), &SavedChatEndpoints::remove));
    server.route("POST", "/api/web/search", bind(m_webSearch.get(), &WebSearchEndpoint::handle));
    server.route("POST", "/api/bug-reports", bind(m_bugReports.get(), &BugReportEndpoint::handle));

    server.route("GET", "/admin/account", bind(m_admin.get(), &AdminEndpoints::account),
                 Access::loopbackOnly);
    server.route("POST", "/admin/accounts", bind(m_admin.get(), &AdminEndpoints::createAccount),
                 Access::loopbackOnly);
    server.route("POST", "/admin/sign-in-as", bind(m_admin.get(), &AdminEndpoints::signInAs),
                 Access::loopbackOnly);
    server.route("POST", "/admin/zero-retention",
                 bind(m_admin.get(), &AdminEndpoints::zeroRetention), Access::loopbackOnly);
    server.route("POST", "/admin/balance", bind(m_admin.get(), &AdminEndpoints::balance),
                 Access::loopbackOnly);
    server.route("POST", "/admin/revoke-tokens", bind(m_admin.get(), &AdminEndpoints::revokeTokens),
                 Access::loopbackOnly);
    server.route("POST", "/admin/fault", bind(m_admin.get(), &AdminEndpoints::armFault),
                 Access::loopbackOnly);
    server.route("DELETE", "/admin/fault", bind(m_admin.get(), &AdminEndpoints::clearFaults),
                 Access::loopbackOnly);
}

bool Service::run() {
    return m_server->listen();
}

void Service::stop() {
    m_stopping = true;
    m_http->stopAll();
    m_server->stop();
}

} // namespace kestrolan::devservice
