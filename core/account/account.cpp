#include "account/account.h"

#include "support/json_reader.h"
#include "support/uuid_text.h"

namespace kestrolan {

Account Account::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    Account account;
    if (const auto id = reader.optionalString(u"id")) {
        account.id = uuidFromText(*id);
        if (!account.id)
            throw JsonReader::FieldError(QStringLiteral("id"));
    }
    const JsonReader retention(reader.object(u"zero_retention"));
    account.zeroRetention.enabled = retention.boolean(u"enabled");
    account.email = reader.string(u"email");
    account.balanceUSD = reader.string(u"balance_usd");
    account.heldUSD = reader.string(u"held_usd");
    account.availableUSD = reader.string(u"available_usd");
    return account;
}

QJsonObject Account::toJson() const {
    QJsonObject object{
        {QStringLiteral("zero_retention"),
         QJsonObject{{QStringLiteral("enabled"), zeroRetention.enabled}}},
        {QStringLiteral("email"), email},
        {QStringLiteral("balance_usd"), balanceUSD},
        {QStringLiteral("held_usd"), heldUSD},
        {QStringLiteral("available_usd"), availableUSD},
    };
    if (id)
        object.insert(QStringLiteral("id"), uuidText(*id));
    return object;
}

} // namespace kestrolan
