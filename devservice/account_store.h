#pragma once

#include "account.h"

#include <QString>
#include <cstdint>
#include <optional>

class QSqlDatabase;

namespace kestrolan::devservice {

class Database;

// Accounts and their zero-data-retention setting. Money moves through Ledger.
class AccountStore {
public:
    static inline const QString developmentEmail = QStringLiteral("dev@localhost");

    explicit AccountStore(Database& database);

    // Creates the development account with `balance` on the first start; later starts keep it
    // as it is.
    Account seedDevelopmentAccount(std::uint64_t balance);
    // A new account credited with `balance`; empty when the e-mail address is taken.
    std::optional<Account> create(const QString& email, std::uint64_t balance);
    std::optional<Account> find(const QString& id);
    std::optional<Account> findByEmail(const QString& email);
    // Returns false when no such account exists.
    bool setZeroRetention(const QString& id, bool enabled);

    static std::optional<Account> find(QSqlDatabase& connection, const QString& id);

private:
    static Account insert(QSqlDatabase& connection, const QString& email, std::uint64_t balance,
                          const QString& description);

    Database& m_database;
};

} // namespace kestrolan::devservice
