#pragma once

#include <QHash>
#include <QString>
#include <QUrl>
#include <QUuid>

namespace kestrolan {

struct ServerOrigin;

// Whose local data this is: the signed-in account on one service origin. Only valid contexts
// exist; every local store and grant is scoped by one.
class LocalAccountContext {
public:
    // Normalises `origin` to scheme://host:port (path, query and fragment dropped, the port
    // always written). Throws LocalPrivacyError(invalidContext) for anything but an http(s)
    // address with a host, no user or password, and a port in 1...65535.
    static LocalAccountContext make(const QUrl& origin, const QUuid& accountID);
    static LocalAccountContext make(const ServerOrigin& origin, const QUuid& accountID);

    const QString& origin() const { return m_origin; }
    const QUuid& accountID() const { return m_accountID; }
    // Lower-case hex SHA-256 of origin + "\n" + the lower-case account id: the account's
    // directory name and key-store account.
    QString storageID() const;

    bool operator==(const LocalAccountContext&) const = default;

private:
    LocalAccountContext(QString origin, QUuid accountID);

    QString m_origin;
    QUuid m_accountID;
};

inline size_t qHash(const LocalAccountContext& context, size_t seed = 0) {
    return qHashMulti(seed, context.origin(), context.accountID());
}

} // namespace kestrolan
