#pragma once

#include "error.h"

#include <QtGlobal>

namespace kestrolan {

// Client-side failures, each with one fixed message.
class ClientError : public Error {
public:
    enum class Kind {
        keychain,
        http,
        zeroRetention,
        configuration,
        invalidResponse,
        responseTooLarge,
        streamTooLarge,
        incompleteStream,
        invalidCallback,
        stateMismatch,
        accessDenied,
        noAuthorization,
        invalidAgent,
    };

    explicit ClientError(Kind kind);
    static ClientError keychain(qint32 osStatus);
    static ClientError http(int status);
    // Decoders give up on input they cannot read through this one path.
    [[noreturn]] static void refuse(Kind kind = Kind::invalidResponse);

    Kind kind() const { return m_kind; }
    // The OS status of `keychain` or the HTTP status of `http`; 0 otherwise.
    qint64 status() const { return m_status; }

    bool operator==(const ClientError& other) const {
        return m_kind == other.m_kind && m_status == other.m_status;
    }

    static QString describe(Kind kind, qint64 status = 0);

private:
    ClientError(Kind kind, qint64 status);

    Kind m_kind;
    qint64 m_status = 0;
};

} // namespace kestrolan
