#include "service/configuration.h"

#include "platform/defaults.h"
#include "service/client_error.h"

namespace kestrolan {

Configuration::Configuration(const QString& baseURL) {
    QUrl url(baseURL, QUrl::StrictMode);
    const auto fail = [] { return ClientError(ClientError::Kind::configuration); };
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        throw fail();
    if (!url.userName().isEmpty() || !url.password().isEmpty() || url.hasQuery() ||
        url.hasFragment())
        throw fail();
    if (const auto path = url.path(); !path.isEmpty() && path != u"/")
        throw fail();

    const auto scheme = url.scheme().toLower();
    const auto host = url.host().toLower();
    const bool loopback = host == u"localhost" || host == u"127.0.0.1" || host == u"::1";
    if (scheme != u"https" && !(scheme == u"http" && loopback))
        throw fail();

    url.setScheme(scheme);
    url.setHost(host);
    m_baseURL = url;
}

Configuration Configuration::load(const QProcessEnvironment& environment,
                                  const Defaults& defaults) {
    if (environment.contains(environmentKey))
        return Configuration(environment.value(environmentKey));
    if (const auto stored = defaults.string(defaultsKey))
        return Configuration(*stored);
    return Configuration(productionBaseURL);
}

QUrl Configuration::url(QStringView path) const {
    QUrl url = m_baseURL;
    url.setPath(u'/' + path.mid(1).toString());
    return url;
}

} // namespace kestrolan
