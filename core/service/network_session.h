#pragma once

#include <QByteArray>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <chrono>
#include <optional>

namespace kestrolan {

// The HTTP stack of the service client: no redirects followed, no cookies, no cache, and no
// credentials offered when a server asks for them.
class NetworkSession {
public:
    struct Timeouts {
        std::chrono::milliseconds transfer{std::chrono::seconds(60)}; // inactivity
        std::chrono::milliseconds total{std::chrono::seconds(600)};
    };

    NetworkSession();

    QNetworkRequest makeRequest(const QUrl& url) const;
    // The reply is the caller's; hand it to a ReplyReader.
    QNetworkReply* send(const QNetworkRequest& request, const QByteArray& method,
                        const std::optional<QByteArray>& body);

    const Timeouts& timeouts() const { return m_timeouts; }
    void setTimeouts(Timeouts timeouts) { m_timeouts = timeouts; }

private:
    QNetworkAccessManager m_manager;
    Timeouts m_timeouts;
};

} // namespace kestrolan
