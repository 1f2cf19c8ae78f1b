#include "catalog_model.h"

#include "money.h"

namespace kestrolan::devservice {

std::optional<std::uint64_t> CatalogModel::cost(std::uint64_t promptTokens,
                                                std::uint64_t completionTokens) const {
    const auto price = [this](const std::optional<Price> Pricing::*which) -> std::uint64_t {
        if (!pricing || !((*pricing).*which))
            return 0;
        return ((*pricing).*which)->millionths;
    };
    const auto input = Money::charge(promptTokens, price(&Pricing::input));
    const auto output = Money::charge(completionTokens, price(&Pricing::output));
    if (!input || !output)
        return std::nullopt;
    return Money::add(*input, *output);
}

QJsonObject CatalogModel::toJson() const {
    QJsonObject object{
        {QStringLiteral("id"), id},
        {QStringLiteral("display_name"), displayName},
        {QStringLiteral("available"), available},
        {QStringLiteral("description"), description},
        {QStringLiteral("max_output_tokens"), maxOutputTokens},
        {QStringLiteral("default_output_tokens"), defaultOutputTokens},
    };
    if (capabilities)
        object.insert(
            QStringLiteral("capabilities"),
            QJsonObject{{QStringLiteral("tool_calling"), capabilities->toolCalling},
                        {QStringLiteral("response_format"), capabilities->responseFormat}});
    if (contextTokens)
        object.insert(QStringLiteral("context_tokens"), *contextTokens);
    if (pricing) {
        QJsonObject prices;
        if (pricing->input)
            prices.insert(QStringLiteral("input_usd_per_mtok"), pricing->input->text);
        if (pricing->cachedInput)
            prices.insert(QStringLiteral("cached_input_usd_per_mtok"), pricing->cachedInput->text);
        if (pricing->output)
            prices.insert(QStringLiteral("output_usd_per_mtok"), pricing->output->text);
        object.insert(QStringLiteral("pricing"), prices);
    }
    return object;
}

} // namespace kestrolan::devservice
