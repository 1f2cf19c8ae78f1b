#pragma once

#include "error.h"

#include <QNetworkReply>

namespace kestrolan {

// The request never produced an HTTP answer: no connection, a time-out, a dropped link.
class TransportError : public Error {
public:
    enum class Kind {
        timedOut,
        cannotFindHost,
        cannotConnect,
        connectionLost,
        secureConnectionFailed,
        other,
    };

    explicit TransportError(Kind kind);
    static TransportError from(QNetworkReply::NetworkError error);

    Kind kind() const { return m_kind; }

private:
    Kind m_kind;
};

} // namespace kestrolan
