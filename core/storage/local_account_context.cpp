#include "storage/local_account_context.h"

#include "service/server_origin.h"
#include "storage/local_privacy_error.h"
#include "support/uuid_text.h"

#include <QCryptographicHash>

namespace kestrolan {

LocalAccountContext::LocalAccountContext(QString origin, QUuid accountID)
    : m_origin(std::move(origin))
    , m_accountID(accountID) {}

LocalAccountContext LocalAccountContext::make(const QUrl& origin, const QUuid& accountID) {
    const auto refuse = [] { return LocalPrivacyError(LocalPrivacyError::Kind::invalidContext); };
    if (!origin.isValid())
        throw refuse();
    const QString scheme = origin.scheme().toLower();
    if (scheme != u"https" && scheme != u"http")
        throw refuse();
    const QString host = origin.host().toLower();
    if (host.isEmpty())
        throw refuse();
    // An empty user ("https://@host") is still a user part.
    if (!origin.userName().isEmpty() || !origin.password().isEmpty() ||
        origin.authority().contains(u'@'))
        throw refuse();
    const int port = origin.port(scheme == u"https" ? 443 : 80);
    if (port < 1 || port > 65535)
        throw refuse();

    QUrl normalised;
    normalised.setScheme(scheme);
    normalised.setHost(host);
    normalised.setPort(port);
    return {normalised.toString(), accountID};
}

LocalAccountContext LocalAccountContext::make(const ServerOrigin& origin, const QUuid& accountID) {
    QUrl url;
    url.setScheme(origin.scheme);
    url.setHost(origin.host);
    url.setPort(origin.port);
    return make(url, accountID);
}

QString LocalAccountContext::storageID() const {
    const QByteArray material = m_origin.toUtf8() + '\n' + uuidText(m_accountID).toLower().toUtf8();
    return QString::fromLatin1(
        QCryptographicHash::hash(material, QCryptographicHash::Sha256).toHex());
}

} // namespace kestrolan
