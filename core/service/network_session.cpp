#include "service/network_session.h"

#include <QNetworkCookie>
#include <QNetworkCookieJar>

namespace kestrolan {

namespace {

// Belt and braces with the per-request cookie attributes: nothing is ever stored or sent.
class NoCookieJar final : public QNetworkCookieJar {
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

} // namespace

NetworkSession::NetworkSession() {
    m_manager.setCookieJar(new NoCookieJar(&m_manager));
    m_manager.setCache(nullptr);
    m_manager.setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    m_manager.setAutoDeleteReplies(false);
}

QNetworkRequest NetworkSession::makeRequest(const QUrl& url) const {
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::AuthenticationReuseAttribute, QNetworkRequest::Manual);
    request.setTransferTimeout(int(m_timeouts.transfer.count()));
    return request;
}

QNetworkReply* NetworkSession::send(const QNetworkRequest& request, const QByteArray& method,
                                    const std::optional<QByteArray>& body) {
    return m_manager.sendCustomRequest(request, method, body.value_or(QByteArray()));
}

} // namespace kestrolan
