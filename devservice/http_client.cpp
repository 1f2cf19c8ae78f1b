#include "http_client.h"

#include <httplib.h>

namespace kestrolan::devservice {

namespace {

std::unique_ptr<httplib::Client> makeClient(const QUrl& url) {
    const auto scheme = url.scheme().toLower();
    const auto port = url.port(scheme == u"https" ? 443 : 80);
    auto host = url.host(QUrl::FullyEncoded);
    if (host.contains(u':'))
        host = u'[' + host + u']';
    auto client = std::make_unique<httplib::Client>(
        QString(scheme + QStringLiteral("://") + host + u':' + QString::number(port))
            .toStdString());
    client->set_connection_timeout(10);
    // A model may think for minutes before its first token.
    client->set_read_timeout(300);
    client->set_write_timeout(30);
    client->set_follow_location(false);
    client->set_keep_alive(false);
    return client;
}

std::string target(const QUrl& url) {
    auto path = url.path(QUrl::FullyEncoded);
    if (path.isEmpty())
        path = QStringLiteral("/");
    if (url.hasQuery())
        path += u'?' + url.query(QUrl::FullyEncoded);
    return path.toStdString();
}

httplib::Headers toHeaders(const HttpClient::Headers& headers) {
    httplib::Headers result;
    for (const auto& [name, value] : headers)
        result.emplace(name.toStdString(), value.toStdString());
    return result;
}

QString describe(httplib::Error error) {
    return QString::fromStdString(httplib::to_string(error));
}

} // namespace

HttpClient::HttpClient() = default;
HttpClient::~HttpClient() = default;

bool HttpClient::enroll(httplib::Client* client) {
    std::lock_guard lock(m_mutex);
    if (m_stopped)
        return false;
    m_active.insert(client);
    return true;
}

void HttpClient::withdraw(httplib::Client* client) {
    std::lock_guard lock(m_mutex);
    m_active.erase(client);
}

void HttpClient::stopAll() {
    std::lock_guard lock(m_mutex);
    m_stopped = true;
    for (auto* client : m_active)
        client->stop();
}

std::optional<QString>
HttpClient::postStreaming(const QUrl& url, const Headers& headers, const QByteArray& body,
                          const std::function<bool(int, const QByteArray&)>& onResponse,
                          const std::function<bool(QByteArrayView)>& onData) {
    auto client = makeClient(url);
    if (!enroll(client.get()))
        return QStringLiteral("the service is stopping");

    bool stoppedOnPurpose = false;
    httplib::Request request;
    request.method = "POST";
    request.path = target(url);
    request.headers = toHeaders(headers);
    request.body = body.toStdString();
    if (!request.has_header("Content-Type"))
        request.set_header("Content-Type", "application/json");
    request.response_handler = [&](const httplib::Response& response) {
        const auto go = onResponse(
            response.status, QByteArray::fromStdString(response.get_header_value("Content-Type")));
        stoppedOnPurpose = !go;
        return go;
    };
    request.content_receiver = [&](const char* data, size_t length, uint64_t, uint64_t) {
        const auto go = onData(QByteArrayView(data, qsizetype(length)));
        stoppedOnPurpose = !go;
        return go;
    };
    httplib::Response response;
    httplib::Error error = httplib::Error::Success;
    const auto ok = client->send(request, response, error);
    withdraw(client.get());
    if (ok || stoppedOnPurpose)
        return std::nullopt;
    return describe(error);
}

std::variant<HttpClient::Response, QString> HttpClient::get(const QUrl& url, const Headers& headers,
                                                            qsizetype maximumBytes) {
    auto client = makeClient(url);
    if (!enroll(client.get()))
        return QStringLiteral("the service is stopping");

    Response result;
    bool tooLarge = false;
    auto outcome = client->Get(
        target(url), toHeaders(headers),
        [&](const httplib::Response& response) {
            result.status = response.status;
            result.contentType =
                QByteArray::fromStdString(response.get_header_value("Content-Type"));
            return true;
        },
        [&](const char* data, size_t length) {
            if (result.body.size() + qsizetype(length) > maximumBytes) {
                tooLarge = true;
                return false;
            }
            result.body.append(data, qsizetype(length));
            return true;
        });
    withdraw(client.get());
    if (tooLarge)
        return QStringLiteral("the response is larger than %1 bytes").arg(maximumBytes);
    if (!outcome)
        return describe(outcome.error());
    return result;
}

} // namespace kestrolan::devservice
