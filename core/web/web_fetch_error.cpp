#include "web/web_fetch_error.h"

namespace kestrolan {

WebFetchError::WebFetchError(Kind kind)
    : Error(describe(kind))
    , m_kind(kind) {}

QString WebFetchError::describe(Kind kind) {
    switch (kind) {
    case Kind::invalidAddress:
        return QStringLiteral("This is not a valid web address.");
    case Kind::unsupportedScheme:
        return QStringLiteral("Only http and https addresses can be fetched.");
    case Kind::credentialsInAddress:
        return QStringLiteral("Addresses with a user name or password cannot be fetched.");
    case Kind::notPublic:
        return QStringLiteral("This address is not public.");
    case Kind::tooManyRedirects:
        return QStringLiteral("The page redirected too many times.");
    case Kind::unsupportedContent:
        return QStringLiteral("This kind of page cannot be read.");
    case Kind::hostNotFound:
        return QStringLiteral("The site's name could not be found.");
    case Kind::insecureConnection:
        return QStringLiteral("The site's secure connection could not be verified.");
    case Kind::timedOut:
        return QStringLiteral("The page did not load within 20 seconds.");
    case Kind::unreachable:
        return QStringLiteral("The page could not be loaded.");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace kestrolan
