#pragma once

#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <optional>

class QSqlDatabase;

namespace kestrolan::devservice {

class Database;

// Money of the accounts: holds for requests in progress, their settlement into charges, and
// the ledger of every change of a balance. Each operation is one transaction, so the balance
// always equals the sum of the ledger and `held` the sum of the open holds.
class Ledger {
public:
    enum class Kind { credit, charge, adjustment };

    struct Entry {
        QString accountId;
        Kind kind = Kind::charge;
        qint64 amount = 0; // signed millionths: charges are negative
        std::uint64_t balanceAfter = 0;
        std::optional<qint64> holdId;
        QString model;
        std::optional<std::uint64_t> promptTokens;
        std::optional<std::uint64_t> completionTokens;
        QString description;
    };

    struct Usage {
        QString model;
        std::uint64_t promptTokens = 0;
        std::uint64_t completionTokens = 0;
        QString description;
    };

    enum class BalanceChange { done, unknownAccount, belowHeld };

    explicit Ledger(Database& database);

    // Reserves `amount` of the account's available credit; empty when it does not cover it.
    std::optional<qint64> hold(const QString& accountId, std::uint64_t amount,
                               const QString& purpose);
    // Closes the hold with a charge of `amount` (never more than was held) and returns what was
    // charged.
    std::uint64_t settle(qint64 holdId, std::uint64_t amount, const Usage& usage);
    // Closes the hold without a charge.
    void release(qint64 holdId);
    // Holds left open by a previous run that ended abruptly; returns how many were released.
    int releaseOpenHolds();
    BalanceChange setBalance(const QString& accountId, std::uint64_t balance);
    // The account's ledger, holds and whether they balance (administration).
    std::optional<QJsonObject> statement(const QString& accountId);

    static void record(QSqlDatabase& connection, const Entry& entry);

private:
    Database& m_database;
};

} // namespace kestrolan::devservice
