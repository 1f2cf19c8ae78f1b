#include "account.h"

#include "money.h"

namespace kestrolan::devservice {

QJsonObject Account::toJson() const {
    return QJsonObject{
        {QStringLiteral("id"), id},
        {QStringLiteral("zero_retention"), QJsonObject{{QStringLiteral("enabled"), zeroRetention}}},
        {QStringLiteral("email"), email},
        {QStringLiteral("balance_usd"), Money::format(balance)},
        {QStringLiteral("held_usd"), Money::format(held)},
        {QStringLiteral("available_usd"), Money::format(available())},
    };
}

} // namespace kestrolan::devservice
