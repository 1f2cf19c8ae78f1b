#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <optional>

namespace kestrolan {

// A request ready to send, with the authorization epoch its token was read under.
struct PreparedRequest {
    QNetworkRequest request;
    QByteArray method;
    std::optional<QByteArray> body;
    quint64 epoch = 0;
    std::optional<QString> token; // absent for unauthenticated requests
};

} // namespace kestrolan
