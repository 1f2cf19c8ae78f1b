#include "http_server.h"

#include "api_exception.h"
#include "bug_report_endpoint.h"
#include "fault_injector.h"
#include "log.h"
#include "options.h"

#include <httplib.h>
#include <thread>

namespace kestrolan::devservice {

namespace {

// Streams outlive short requests; a pool this size keeps a few stalled ones from starving the
// rest.
constexpr size_t workerThreads = 32;

// The body of a streamed response, optionally trickled.
class SinkStream : public ResponseStream {
public:
    SinkStream(httplib::DataSink& sink, const std::atomic<bool>& stopping,
               std::optional<ApiResponse::Pacing> pacing)
        : m_sink(sink)
        , m_stopping(stopping)
        , m_pacing(pacing) {}

    bool write(QByteArrayView bytes) override {
        if (!m_pacing)
            return m_sink.write(bytes.data(), size_t(bytes.size()));
        for (qsizetype offset = 0; offset < bytes.size(); offset += m_pacing->pieceBytes) {
            if (offset > 0 && !wait(m_pacing->interval))
                return false;
            const auto size = std::min(m_pacing->pieceBytes, bytes.size() - offset);
            if (!m_sink.write(bytes.data() + offset, size_t(size)))
                return false;
        }
        return true;
    }

    bool stopping() const override { return m_stopping.load(); }

    bool wait(std::chrono::milliseconds duration) const {
        const auto until = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < until) {
            if (stopping())
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

private:
    httplib::DataSink& m_sink;
    const std::atomic<bool>& m_stopping;
    std::optional<ApiResponse::Pacing> m_pacing;
};

ApiRequest toApiRequest(const httplib::Request& request) {
    ApiRequest result;
    result.method = QByteArray::fromStdString(request.method);
    result.path = QString::fromStdString(request.path);
    for (size_t i = 1; i < request.matches.size(); ++i)
        result.pathArguments.append(QString::fromStdString(request.matches[i].str()));
    for (const auto& [key, value] : request.params) {
        const auto name = QString::fromStdString(key);
        if (!result.parameters.contains(name))
            result.parameters.insert(name, QString::fromStdString(value));
    }
    for (const auto& [key, value] : request.headers)
        result.headers.emplaceBack(QByteArray::fromStdString(key).toLower(),
                                   QByteArray::fromStdString(value));
    result.body = QByteArray::fromStdString(request.body);
    result.remoteAddress = QString::fromStdString(request.remote_addr);
    return result;
}

void apply(ApiResponse response, httplib::Response& out, const std::atomic<bool>& stopping) {
    out.status = response.status;
    for (const auto& [name, value] : response.headers)
        out.set_header(name.toStdString(), value.toStdString());
    const auto contentType = response.contentType.toStdString();

    if (response.stream) {
        out.set_chunked_content_provider(contentType, [streamer = std::move(response.stream),
                                                       pacing = response.pacing,
                                                       &stopping](size_t, httplib::DataSink& sink) {
            SinkStream stream(sink, stopping, pacing);
            if (streamer(stream) == ApiResponse::StreamEnd::abort)
                return false; // cut the connection: the body never ends
            sink.done();
            return true;
        });
    } else if (response.pacing && !response.body.isEmpty()) {
        // A fixed length keeps the library from compressing, and so from buffering, the body.
        const auto body = std::make_shared<QByteArray>(std::move(response.body));
        out.set_content_provider(size_t(body->size()), contentType,
                                 [body, pacing = *response.pacing,
                                  &stopping](size_t offset, size_t, httplib::DataSink& sink) {
                                     SinkStream stream(sink, stopping, std::nullopt);
                                     if (offset > 0 && !stream.wait(pacing.interval))
                                         return false;
                                     const auto size = std::min(pacing.pieceBytes,
                                                                body->size() - qsizetype(offset));
                                     return sink.write(body->constData() + offset, size_t(size));
                                 });
    } else if (!response.body.isEmpty() || !contentType.empty()) {
        out.set_content(response.body.toStdString(), contentType);
    }
}

ApiException fallbackError(const httplib::Request& request, int status) {
    switch (status) {
    case 404:
        return ApiException::notFound(QStringLiteral("There is no endpoint ") +
                                      QString::fromStdString(request.method) + u' ' +
                                      QString::fromStdString(request.path) + u'.');
    case 413:
        return ApiException(413,
                            QStringLiteral("The request body is larger than the service accepts "
                                           "(28 MiB)."),
                            QStringLiteral("invalid_request_error"),
                            QStringLiteral("request_too_large"));
    default:
        return ApiException(status, QStringLiteral("The request could not be handled."),
                            status >= 500 ? QStringLiteral("server_error")
                                          : QStringLiteral("invalid_request_error"),
                            QStringLiteral("http_%1").arg(status));
    }
}

} // namespace

HttpServer::HttpServer(FaultInjector& faults, const std::atomic<bool>& stopping)
    : m_server(std::make_unique<httplib::Server>())
    , m_faults(faults)
    , m_stopping(stopping) {
    m_server->new_task_queue = [] { return new httplib::ThreadPool(workerThreads); };
    m_server->set_tcp_nodelay(true);
    // Short, so that shutting down does not wait long for idle keep-alive connections.
    m_server->set_keep_alive_timeout(2);
    m_server->set_read_timeout(30);
    m_server->set_write_timeout(30);
    m_server->set_payload_max_length(size_t(BugReportEndpoint::maximumBytes));
    m_server->set_error_handler(
        httplib::Server::Handler([](const httplib::Request& request, httplib::Response& response) {
            if (!response.body.empty() || response.has_header("Content-Type"))
                return;
            const auto envelope = fallbackError(request, response.status).response();
            response.set_content(envelope.body.toStdString(), envelope.contentType.toStdString());
        }));
    m_server->set_logger([](const httplib::Request& request, const httplib::Response& response) {
        qCInfo(serviceLog).noquote() << QString::fromStdString(request.method)
                                     << QString::fromStdString(request.path) << response.status;
    });
}

HttpServer::~HttpServer() = default;

bool HttpServer::isLoopbackPeer(const QString& address) {
    auto host = address;
    if (host.startsWith(u"::ffff:", Qt::CaseInsensitive))
        host = host.sliced(7);
    return Options::isLoopback(host) && host.compare(u"localhost", Qt::CaseInsensitive) != 0;
}

void HttpServer::route(const char* method, const char* pattern, Handler handler, Access access) {
    auto wrapped = [this, handler = std::move(handler), access](const httplib::Request& request,
                                                                httplib::Response& response) {
        const auto apiRequest = toApiRequest(request);
        ApiResponse result;
        try {
            if (access == Access::loopbackOnly && !isLoopbackPeer(apiRequest.remoteAddress))
                throw ApiException(403,
                                   QStringLiteral("Administration is answered on loopback "
                                                  "connections only."),
                                   QStringLiteral("permission_error"), QStringLiteral("forbidden"));
            const auto fault = apiRequest.path.startsWith(u"/api/") ? m_faults.take(apiRequest.path)
                                                                    : std::nullopt;
            if (fault && fault->kind != FaultInjector::Fault::Kind::slowBody) {
                result = FaultInjector::response(*fault);
            } else {
                result = handler(apiRequest);
                if (fault)
                    result.pacing = fault->pacing;
            }
        } catch (const ApiException& error) {
            result = error.response();
        } catch (const std::exception& error) {
            qCWarning(serviceLog) << "Request" << apiRequest.method << apiRequest.path
                                  << "failed:" << error.what();
            result = ApiException(500, QStringLiteral("The service failed to handle the request."),
                                  QStringLiteral("server_error"), QStringLiteral("internal_error"))
                         .response();
        }
        apply(std::move(result), response, m_stopping);
    };

    const std::string method_(method);
    if (method_ == "GET")
        m_server->Get(pattern, std::move(wrapped));
    else if (method_ == "POST")
        m_server->Post(pattern, std::move(wrapped));
    else if (method_ == "PUT")
        m_server->Put(pattern, std::move(wrapped));
    else if (method_ == "DELETE")
        m_server->Delete(pattern, std::move(wrapped));
    else
        qFatal("Unsupported method %s", method);
}

std::optional<quint16> HttpServer::bind(const QString& host, quint16 port) {
    const auto address = host.toStdString();
    if (port == 0) {
        const auto chosen = m_server->bind_to_any_port(address);
        if (chosen <= 0)
            return std::nullopt;
        return quint16(chosen);
    }
    if (!m_server->bind_to_port(address, port))
        return std::nullopt;
    return port;
}

bool HttpServer::listen() {
    return m_server->listen_after_bind();
}

void HttpServer::stop() {
    m_server->stop();
}

} // namespace kestrolan::devservice
