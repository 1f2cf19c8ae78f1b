#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <variant>

namespace httplib {
class Client;
}

namespace kestrolan::devservice {

// Outgoing HTTP for the upstream model servers and the search engine. Requests in flight can
// all be cancelled at shutdown.
class HttpClient {
public:
    using Headers = QList<std::pair<QByteArray, QByteArray>>;

    struct Response {
        int status = 0;
        QByteArray contentType;
        QByteArray body;
    };

    HttpClient();
    ~HttpClient();

    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // POSTs `body` and hands the response to `onResponse` (status and content type) and then
    // `onData` piece by piece as it arrives; either returns false to stop reading. Returns the
    // transport failure, if any (stopping on purpose is not one).
    std::optional<QString>
    postStreaming(const QUrl& url, const Headers& headers, const QByteArray& body,
                  const std::function<bool(int, const QByteArray&)>& onResponse,
                  const std::function<bool(QByteArrayView)>& onData);
    // GETs a response of at most `maximumBytes`; the failure text otherwise.
    std::variant<Response, QString> get(const QUrl& url, const Headers& headers,
                                        qsizetype maximumBytes);

    // Cancels every request in flight and refuses new ones.
    void stopAll();

private:
    bool enroll(httplib::Client* client);
    void withdraw(httplib::Client* client);

    std::mutex m_mutex;
    std::set<httplib::Client*> m_active;
    bool m_stopped = false;
};

} // namespace kestrolan::devservice
