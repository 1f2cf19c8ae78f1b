#include "ledger.h"

#include "account_store.h"
#include "database.h"
#include "log.h"

#include <QDateTime>
#include <QJsonArray>
#include <algorithm>

namespace kestrolan::devservice {

namespace {

QString kindName(Ledger::Kind kind) {
    switch (kind) {
    case Ledger::Kind::credit:
        return QStringLiteral("credit");
    case Ledger::Kind::charge:
        return QStringLiteral("charge");
    case Ledger::Kind::adjustment:
        return QStringLiteral("adjustment");
    }
    return {};
}

QVariant optionalValue(const std::optional<std::uint64_t>& value) {
    return value ? QVariant(qint64(*value)) : QVariant();
}

QJsonValue jsonOrNull(const QVariant& value) {
    return value.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(value.toLongLong());
}

struct OpenHold {
    QString accountId;
    std::uint64_t amount;
};

std::optional<OpenHold> openHold(QSqlDatabase& connection, qint64 holdId) {
    auto query = Database::execute(
        connection,
        QStringLiteral("SELECT account_id, amount FROM holds WHERE id = ? AND state = 'open'"),
        {holdId});
    if (!query.next())
        return std::nullopt;
    return OpenHold{query.value(0).toString(), query.value(1).toULongLong()};
}

} // namespace

Ledger::Ledger(Database& database)
    : m_database(database) {}

void Ledger::record(QSqlDatabase& connection, const Entry& entry) {
    Database::execute(connection,
                      QStringLiteral("INSERT INTO ledger (account_id, kind, amount, balance_after, "
                                     "hold_id, model, prompt_tokens, completion_tokens, "
                                     "description, created_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, "
                                     "?, ?)"),
                      {entry.accountId, kindName(entry.kind), entry.amount,
                       qint64(entry.balanceAfter),
                       entry.holdId ? QVariant(*entry.holdId) : QVariant(),
                       entry.model.isEmpty() ? QVariant() : QVariant(entry.model),
                       optionalValue(entry.promptTokens), optionalValue(entry.completionTokens),
                       entry.description, QDateTime::currentMSecsSinceEpoch()});
}

std::optional<qint64> Ledger::hold(const QString& accountId, std::uint64_t amount,
                                   const QString& purpose) {
    return m_database.transaction([&](QSqlDatabase& connection) -> std::optional<qint64> {
        const auto account = AccountStore::find(connection, accountId);
        if (!account || account->available() < amount)
            return std::nullopt;
        const auto holdId =
            Database::execute(
                connection,
                QStringLiteral("INSERT INTO holds (account_id, amount, purpose, "
                               "state, created_at) VALUES (?, ?, ?, 'open', ?)"),
                {accountId, qint64(amount), purpose, QDateTime::currentMSecsSinceEpoch()})
                .lastInsertId()
                .toLongLong();
        Database::execute(connection,
                          QStringLiteral("UPDATE accounts SET held = held + ? WHERE id = ?"),
                          {qint64(amount), accountId});
        return holdId;
    });
}

std::uint64_t Ledger::settle(qint64 holdId, std::uint64_t amount, const Usage& usage) {
    return m_database.transaction([&](QSqlDatabase& connection) -> std::uint64_t {
        const auto hold = openHold(connection, holdId);
        if (!hold) {
            qCWarning(serviceLog) << "Hold" << holdId << "was already closed";
            return 0;
        }
        if (amount > hold->amount)
            qCWarning(serviceLog) << "Charge" << amount << "exceeds hold" << hold->amount
                                  << "; charging the hold";
        const auto charged = std::min(amount, hold->amount);
        const auto account = AccountStore::find(connection, hold->accountId);
        const auto balanceAfter = account->balance - charged;
        Database::execute(connection,
                          QStringLiteral("UPDATE holds SET state = 'settled', charged = ?, "
                                         "closed_at = ? WHERE id = ?"),
                          {qint64(charged), QDateTime::currentMSecsSinceEpoch(), holdId});
        Database::execute(
            connection,
            QStringLiteral("UPDATE accounts SET held = held - ?, balance = ? WHERE id = ?"),
            {qint64(hold->amount), qint64(balanceAfter), hold->accountId});
        record(connection, {.accountId = hold->accountId,
                            .kind = Kind::charge,
                            .amount = -qint64(charged),
                            .balanceAfter = balanceAfter,
                            .holdId = holdId,
                            .model = usage.model,
                            .promptTokens = usage.promptTokens,
                            .completionTokens = usage.completionTokens,
                            .description = usage.description});
        return charged;
    });
}

void Ledger::release(qint64 holdId) {
    m_database.transaction([&](QSqlDatabase& connection) {
        const auto hold = openHold(connection, holdId);
        if (!hold)
            return;
        Database::execute(connection,
                          QStringLiteral("UPDATE holds SET state = 'released', closed_at = ? "
                                         "WHERE id = ?"),
                          {QDateTime::currentMSecsSinceEpoch(), holdId});
        Database::execute(connection,
                          QStringLiteral("UPDATE accounts SET held = held - ? WHERE id = ?"),
                          {qint64(hold->amount), hold->accountId});
    });
}

int Ledger::releaseOpenHolds() {
    return m_database.transaction([&](QSqlDatabase& connection) {
        // SQLite counts changes per connection: read the count before the next statement.
        const auto released =
            Database::execute(connection,
                              QStringLiteral("UPDATE holds SET state = 'released', closed_at = ? "
                                             "WHERE state = 'open'"),
                              {QDateTime::currentMSecsSinceEpoch()})
                .numRowsAffected();
        Database::execute(connection, QStringLiteral("UPDATE accounts SET held = 0"));
        return released;
    });
}

Ledger::BalanceChange Ledger::setBalance(const QString& accountId, std::uint64_t balance) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        const auto account = AccountStore::find(connection, accountId);
        if (!account)
            return BalanceChange::unknownAccount;
        if (balance < account->held)
            return BalanceChange::belowHeld;
        if (balance == account->balance)
            return BalanceChange::done;
        Database::execute(connection,
                          QStringLiteral("UPDATE accounts SET balance = ? WHERE id = ?"),
                          {qint64(balance), accountId});
        record(connection, {.accountId = accountId,
                            .kind = Kind::adjustment,
                            .amount = qint64(balance) - qint64(account->balance),
                            .balanceAfter = balance,
                            .description = QStringLiteral("Balance set by administration")});
        return BalanceChange::done;
    });
}

std::optional<QJsonObject> Ledger::statement(const QString& accountId) {
    return m_database.transaction([&](QSqlDatabase& connection) -> std::optional<QJsonObject> {
        const auto account = AccountStore::find(connection, accountId);
        if (!account)
            return std::nullopt;

        QJsonArray entries;
        qint64 ledgerTotal = 0;
        auto ledger = Database::execute(
            connection,
            QStringLiteral("SELECT id, kind, amount, balance_after, hold_id, model, prompt_tokens, "
                           "completion_tokens, description, created_at FROM ledger WHERE "
                           "account_id = ? ORDER BY id"),
            {accountId});
        while (ledger.next()) {
            ledgerTotal += ledger.value(2).toLongLong();
            entries.append(QJsonObject{
                {QStringLiteral("id"), ledger.value(0).toLongLong()},
                {QStringLiteral("kind"), ledger.value(1).toString()},
                {QStringLiteral("amount_millionths"), ledger.value(2).toLongLong()},
                {QStringLiteral("balance_after_millionths"), ledger.value(3).toLongLong()},
                {QStringLiteral("hold_id"), jsonOrNull(ledger.value(4))},
                {QStringLiteral("model"), ledger.value(5).isNull()
                                              ? QJsonValue(QJsonValue::Null)
                                              : QJsonValue(ledger.value(5).toString())},
                {QStringLiteral("prompt_tokens"), jsonOrNull(ledger.value(6))},
                {QStringLiteral("completion_tokens"), jsonOrNull(ledger.value(7))},
                {QStringLiteral("description"), ledger.value(8).toString()},
                {QStringLiteral("created_at_ms"), ledger.value(9).toLongLong()},
            });
        }

        QJsonArray holds;
        qint64 openTotal = 0;
        auto holdRows = Database::execute(
            connection,
            QStringLiteral("SELECT id, amount, purpose, state, charged FROM holds WHERE "
                           "account_id = ? ORDER BY id"),
            {accountId});
        while (holdRows.next()) {
            if (holdRows.value(3).toString() == u"open")
                openTotal += holdRows.value(1).toLongLong();
            holds.append(QJsonObject{
                {QStringLiteral("id"), holdRows.value(0).toLongLong()},
                {QStringLiteral("amount_millionths"), holdRows.value(1).toLongLong()},
                {QStringLiteral("purpose"), holdRows.value(2).toString()},
                {QStringLiteral("state"), holdRows.value(3).toString()},
                {QStringLiteral("charged_millionths"), jsonOrNull(holdRows.value(4))},
            });
        }

        return QJsonObject{
            {QStringLiteral("id"), account->id},
            {QStringLiteral("email"), account->email},
            {QStringLiteral("balance_millionths"), qint64(account->balance)},
            {QStringLiteral("held_millionths"), qint64(account->held)},
            {QStringLiteral("available_millionths"), qint64(account->available())},
            {QStringLiteral("zero_retention"), account->zeroRetention},
            {QStringLiteral("ledger"), entries},
            {QStringLiteral("holds"), holds},
            {QStringLiteral("ledger_total_millionths"), ledgerTotal},
            {QStringLiteral("open_holds_millionths"), openTotal},
            {QStringLiteral("balanced"),
             ledgerTotal == qint64(account->balance) && openTotal == qint64(account->held)},
        };
    });
}

} // namespace kestrolan::devservice
