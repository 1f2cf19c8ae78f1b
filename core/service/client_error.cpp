#include "service/client_error.h"

namespace kestrolan {

ClientError::ClientError(Kind kind)
    : ClientError(kind, 0) {}

ClientError::ClientError(Kind kind, qint64 status)
    : Error(describe(kind, status))
    , m_kind(kind)
    , m_status(status) {}

ClientError ClientError::keychain(qint32 osStatus) {
    return ClientError(Kind::keychain, osStatus);
}

ClientError ClientError::http(int status) {
    return ClientError(Kind::http, status);
}

void ClientError::refuse(Kind kind) {
    throw ClientError(kind);
}

QString ClientError::describe(Kind kind, qint64 status) {
    switch (kind) {
    case Kind::keychain:
        return QStringLiteral("The sign-in token could not be accessed in Keychain.");
    case Kind::http:
        return QStringLiteral("Kestrolan could not complete the request (HTTP ") %
               QString::number(status) % QStringLiteral(").");
    case Kind::zeroRetention:
        return QStringLiteral("Saving is off while Zero Data Retention is on.");
    case Kind::configuration:
        return QStringLiteral("The Kestrolan server address is invalid.");
    case Kind::invalidResponse:
        return QStringLiteral("Kestrolan returned an unreadable response.");
    case Kind::responseTooLarge:
        return QStringLiteral("The response was too large.");
    case Kind::streamTooLarge:
        return QStringLiteral("The stream exceeded its size limit.");
    case Kind::incompleteStream:
        return QStringLiteral("The stream ended before completion. Usage may still be awaiting "
                              "confirmation.");
    case Kind::invalidCallback:
        return QStringLiteral("The sign-in callback is invalid. Start sign-in again.");
    case Kind::stateMismatch:
        return QStringLiteral(
            "This sign-in does not match the current attempt. Start sign-in again.");
    case Kind::accessDenied:
        return QStringLiteral("Sign-in was cancelled.");
    case Kind::noAuthorization:
        return QStringLiteral("Sign in to continue.");
    case Kind::invalidAgent:
        return QStringLiteral(
            "An agent needs a name, instructions, a model, and a temperature from 0 to 2.");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace kestrolan
