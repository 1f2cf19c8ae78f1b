#pragma once

#include "api_request.h"
#include "api_response.h"

#include <QString>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>

namespace httplib {
class Server;
}

namespace kestrolan::devservice {

class FaultInjector;

// The HTTP side: routes requests to endpoint functions on the library's worker threads, turns
// exceptions into error envelopes, applies injected faults and keeps administration to
// loopback connections.
class HttpServer {
public:
    using Handler = std::function<ApiResponse(const ApiRequest&)>;
    enum class Access { anyone, loopbackOnly };

    HttpServer(FaultInjector& faults, const std::atomic<bool>& stopping);
    ~HttpServer();

    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // `pattern` is a regular expression over the path; its groups become pathArguments.
    void route(const char* method, const char* pattern, Handler handler,
               Access access = Access::anyone);

    // Returns the port bound (the chosen one for port 0), or empty on failure.
    std::optional<quint16> bind(const QString& host, quint16 port);
    // Serves until stop(); returns false when serving failed.
    bool listen();
    void stop();

    static bool isLoopbackPeer(const QString& address);

private:
    std::unique_ptr<httplib::Server> m_server;
    FaultInjector& m_faults;
    const std::atomic<bool>& m_stopping;
};

} // namespace kestrolan::devservice
