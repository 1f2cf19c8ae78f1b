#include "account_store.h"

#include "database.h"
#include "ledger.h"

#include <QDateTime>
#include <QUuid>

namespace kestrolan::devservice {

namespace {

const QString selectAccount =
    QStringLiteral("SELECT id, email, balance, held, zero_retention FROM accounts WHERE ");

std::optional<Account> readAccount(QSqlQuery& query) {
    if (!query.next())
        return std::nullopt;
    return Account{query.value(0).toString(), query.value(1).toString(),
                   query.value(2).toULongLong(), query.value(3).toULongLong(),
                   query.value(4).toBool()};
}

} // namespace

AccountStore::AccountStore(Database& database)
    : m_database(database) {}

Account AccountStore::insert(QSqlDatabase& connection, const QString& email, std::uint64_t balance,
                             const QString& description) {
    const auto id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    Database::execute(connection,
                      QStringLiteral("INSERT INTO accounts (id, email, balance, held, "
                                     "zero_retention, created_at) VALUES (?, ?, ?, 0, 0, ?)"),
                      {id, email, qint64(balance), QDateTime::currentMSecsSinceEpoch()});
    // The opening credit goes through the ledger so that the balance stays its sum.
    Ledger::record(connection, {.accountId = id,
                                .kind = Ledger::Kind::credit,
                                .amount = qint64(balance),
                                .balanceAfter = balance,
                                .description = description});
    return Account{id, email, balance, 0, false};
}

Account AccountStore::seedDevelopmentAccount(std::uint64_t balance) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        auto existing = Database::execute(connection, selectAccount + QStringLiteral("email = ?"),
                                          {developmentEmail});
        if (auto account = readAccount(existing))
            return *account;
        return insert(connection, developmentEmail, balance, QStringLiteral("Development credit"));
    });
}

std::optional<Account> AccountStore::create(const QString& email, std::uint64_t balance) {
    return m_database.transaction([&](QSqlDatabase& connection) -> std::optional<Account> {
        auto existing =
            Database::execute(connection, selectAccount + QStringLiteral("email = ?"), {email});
        if (existing.next())
            return std::nullopt;
        return insert(connection, email, balance, QStringLiteral("Opening credit"));
    });
}

std::optional<Account> AccountStore::find(QSqlDatabase& connection, const QString& id) {
    auto query = Database::execute(connection, selectAccount + QStringLiteral("id = ?"), {id});
    return readAccount(query);
}

std::optional<Account> AccountStore::find(const QString& id) {
    return m_database.transaction([&](QSqlDatabase& connection) { return find(connection, id); });
}

std::optional<Account> AccountStore::findByEmail(const QString& email) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        auto query =
            Database::execute(connection, selectAccount + QStringLiteral("email = ?"), {email});
        return readAccount(query);
    });
}

bool AccountStore::setZeroRetention(const QString& id, bool enabled) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        const auto query = Database::execute(
            connection, QStringLiteral("UPDATE accounts SET zero_retention = ? WHERE id = ?"),
            {enabled ? 1 : 0, id});
        return query.numRowsAffected() == 1;
    });
}

} // namespace kestrolan::devservice
