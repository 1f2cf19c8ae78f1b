#pragma once

#include <QDateTime>
#include <QString>
#include <optional>

namespace kestrolan::devservice {

class Database;

// Bearer tokens of signed-in devices. A token is 256 random bits; only its SHA-256 is stored,
// so the data directory never holds a usable credential.
class SessionTokens {
public:
    struct Issued {
        QString token;
        QString digest; // what is stored, and what revokeDigest() takes
        QDateTime expiresAt;
    };

    explicit SessionTokens(Database& database);

    Issued issue(const QString& accountId, const QString& deviceName);
    // The account the token belongs to, while it is neither revoked nor expired.
    std::optional<QString> authenticate(const QString& token);
    bool revoke(const QString& token);
    bool revokeDigest(const QString& digest);
    // Revokes every live token of the account; returns how many.
    int revokeAll(const QString& accountId);

private:
    static QString hash(const QString& token);

    Database& m_database;
};

} // namespace kestrolan::devservice
