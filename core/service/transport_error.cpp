#include "service/transport_error.h"

namespace kestrolan {

namespace {

QString describe(TransportError::Kind kind) {
    using Kind = TransportError::Kind;
    switch (kind) {
    case Kind::timedOut:
        return QStringLiteral("The request timed out.");
    case Kind::cannotFindHost:
        return QStringLiteral("A server with the specified hostname could not be found.");
    case Kind::cannotConnect:
        return QStringLiteral("Could not connect to the server.");
    case Kind::connectionLost:
        return QStringLiteral("The network connection was lost.");
    case Kind::secureConnectionFailed:
        return QStringLiteral("An SSL error has occurred and a secure connection to the server "
                              "cannot be made.");
    case Kind::other:
        return QStringLiteral("Kestrolan could not reach the server.");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace

TransportError::TransportError(Kind kind)
    : Error(describe(kind))
    , m_kind(kind) {}

TransportError TransportError::from(QNetworkReply::NetworkError error) {
    switch (error) {
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: // the transfer time-out aborts this way
        return TransportError(Kind::timedOut);
    case QNetworkReply::HostNotFoundError:
        return TransportError(Kind::cannotFindHost);
    case QNetworkReply::ConnectionRefusedError:
        return TransportError(Kind::cannotConnect);
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::TemporaryNetworkFailureError:
        return TransportError(Kind::connectionLost);
    case QNetworkReply::SslHandshakeFailedError:
        return TransportError(Kind::secureConnectionFailed);
    default:
        return TransportError(Kind::other);
    }
}

} // namespace kestrolan
