#include "service/billing_usage.h"

#include "support/enum_names.h"
#include "support/json_reader.h"

namespace kestrolan {

namespace {

std::optional<quint64> optionalCount(const JsonReader& reader, QStringView key) {
    const auto value = reader.optionalInteger(key);
    if (value && *value < 0)
        throw JsonReader::FieldError(key.toString());
    return value ? std::optional<quint64>(static_cast<quint64>(*value)) : std::nullopt;
}

} // namespace

QString BillingUsage::summary() const {
    switch (state) {
    case State::settled:
        if (chargedUSD)
            return u"Charged $" + *chargedUSD;
        return QStringLiteral("Charge confirmation not received; see Activity.");
    case State::unresolved:
        return QStringLiteral("Usage pending; not charged unless confirmed");
    case State::released:
        return QStringLiteral("No charge. Credit reservation released.");
    }
    Q_UNREACHABLE();
    return {};
}

QJsonObject BillingUsage::toJson() const {
    QJsonObject object{{QStringLiteral("state"), toString(state)}};
    // Counts go out as JSON numbers; they never come near 2^53.
    if (promptTokens)
        object.insert(QStringLiteral("prompt_tokens"), static_cast<qint64>(*promptTokens));
    if (completionTokens)
        object.insert(QStringLiteral("completion_tokens"), static_cast<qint64>(*completionTokens));
    if (chargedUSD)
        object.insert(QStringLiteral("charged_usd"), *chargedUSD);
    return object;
}

BillingUsage BillingUsage::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    const auto state = stateFromString(reader.string(u"state"));
    if (!state)
        throw JsonReader::FieldError(QStringLiteral("state"));
    return BillingUsage{optionalCount(reader, u"prompt_tokens"),
                        optionalCount(reader, u"completion_tokens"),
                        reader.optionalString(u"charged_usd"), *state};
}

namespace {

constexpr EnumNames stateNames{std::array{
    std::pair{BillingUsage::State::settled, u"settled"},
    std::pair{BillingUsage::State::unresolved, u"unresolved"},
    std::pair{BillingUsage::State::released, u"released"},
}};

} // namespace

QString BillingUsage::toString(State state) {
    return stateNames.name(state);
}

std::optional<BillingUsage::State> BillingUsage::stateFromString(QStringView text) {
    return stateNames.value(text);
}

} // namespace kestrolan
