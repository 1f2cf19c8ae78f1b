#include "service/server_origin.h"

#include "service/configuration.h"

namespace kestrolan {

ServerOrigin ServerOrigin::of(const QUrl& url) {
    ServerOrigin origin;
    origin.scheme = url.scheme().toLower();
    origin.host = url.host().toLower();
    origin.port = url.port(origin.scheme == u"https" ? 443 : 80);
    return origin;
}

ServerOrigin ServerOrigin::production() {
    return of(QUrl(Configuration::productionBaseURL));
}

QString ServerOrigin::key() const {
    return scheme % u"://" % host % u':' % QString::number(port);
}

} // namespace kestrolan
