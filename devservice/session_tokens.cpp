#include "session_tokens.h"

#include "database.h"
#include "pkce.h"

#include <QCryptographicHash>
#include <chrono>

namespace kestrolan::devservice {

namespace {

constexpr std::chrono::milliseconds tokenLifetime = std::chrono::days(30);

} // namespace

SessionTokens::SessionTokens(Database& database)
    : m_database(database) {}

QString SessionTokens::hash(const QString& token) {
    return QString::fromLatin1(
        QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

SessionTokens::Issued SessionTokens::issue(const QString& accountId, const QString& deviceName) {
    const QString token = QStringLiteral("kdev_") + Pkce::randomText(32);
    // Whole seconds: the expiry travels as text without a fraction.
    const auto digest = hash(token);
    const auto now = QDateTime::currentDateTimeUtc();
    const auto expiresAt = QDateTime::fromSecsSinceEpoch(
        now.toSecsSinceEpoch() + tokenLifetime.count() / 1000, Qt::UTC);
    m_database.transaction([&](QSqlDatabase& connection) {
        Database::execute(connection,
                          QStringLiteral("INSERT INTO tokens (hash, account_id, device_name, "
                                         "created_at, expires_at) VALUES (?, ?, ?, ?, ?)"),
                          {digest, accountId, deviceName, now.toMSecsSinceEpoch(),
                           expiresAt.toMSecsSinceEpoch()});
    });
    return {token, digest, expiresAt};
}

std::optional<QString> SessionTokens::authenticate(const QString& token) {
    const auto digest = hash(token);
    return m_database.transaction([&](QSqlDatabase& connection) -> std::optional<QString> {
        auto query = Database::execute(
            connection,
            QStringLiteral("SELECT account_id FROM tokens WHERE hash = ? AND revoked_at IS NULL "
                           "AND expires_at > ?"),
            {digest, QDateTime::currentMSecsSinceEpoch()});
        if (!query.next())
            return std::nullopt;
        return query.value(0).toString();
    });
}

bool SessionTokens::revoke(const QString& token) {
    return revokeDigest(hash(token));
}

bool SessionTokens::revokeDigest(const QString& digest) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        return Database::execute(connection,
                                 QStringLiteral("UPDATE tokens SET revoked_at = ? WHERE hash = ? "
                                                "AND revoked_at IS NULL"),
                                 {QDateTime::currentMSecsSinceEpoch(), digest})
                   .numRowsAffected() == 1;
    });
}

int SessionTokens::revokeAll(const QString& accountId) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        return Database::execute(connection,
                                 QStringLiteral("UPDATE tokens SET revoked_at = ? WHERE "
                                                "account_id = ? AND revoked_at IS NULL"),
                                 {QDateTime::currentMSecsSinceEpoch(), accountId})
            .numRowsAffected();
    });
}

} // namespace kestrolan::devservice
