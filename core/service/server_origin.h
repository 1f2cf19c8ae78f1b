#pragma once

#include <QHash>
#include <QString>
#include <QUrl>

namespace kestrolan {

// Scheme, host and port of the service; token storage is scoped by its key.
struct ServerOrigin {
    QString scheme;
    QString host;
    int port = 0;

    static ServerOrigin of(const QUrl& url);
    static ServerOrigin production();

    // scheme + "://" + host + ":" + port, e.g. "https://api.kestrolan.com:443".
    QString key() const;

    bool operator==(const ServerOrigin&) const = default;
};

inline size_t qHash(const ServerOrigin& origin, size_t seed = 0) {
    return qHashMulti(seed, origin.scheme, origin.host, origin.port);
}

} // namespace kestrolan
