#include "account/catalog_model.h"

#include "support/json_reader.h"

namespace kestrolan {

CatalogModel CatalogModel::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    CatalogModel model;
    model.id = reader.string(u"id");
    model.displayName = reader.string(u"display_name");
    model.available = reader.boolean(u"available");
    model.description = reader.string(u"description");
    if (const auto capabilities = reader.optionalObject(u"capabilities")) {
        const JsonReader fields(*capabilities);
        model.capabilities = Capabilities{
            .toolCalling = fields.boolean(u"tool_calling"),
            .responseFormat = fields.boolean(u"response_format"),
        };
    }
    model.contextTokens = reader.optionalInteger(u"context_tokens");
    model.maxOutputTokens = reader.integer(u"max_output_tokens");
    model.defaultOutputTokens = reader.integer(u"default_output_tokens");
    if (const auto pricing = reader.optionalObject(u"pricing")) {
        const JsonReader fields(*pricing);
        model.pricing = Pricing{
            .inputUSDPerMTok = fields.optionalString(u"input_usd_per_mtok"),
            .cachedInputUSDPerMTok = fields.optionalString(u"cached_input_usd_per_mtok"),
            .outputUSDPerMTok = fields.optionalString(u"output_usd_per_mtok"),
        };
    }
    return model;
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
    if (capabilities) {
        object.insert(
            QStringLiteral("capabilities"),
            QJsonObject{{QStringLiteral("tool_calling"), capabilities->toolCalling},
                        {QStringLiteral("response_format"), capabilities->responseFormat}});
    }
    if (contextTokens)
        object.insert(QStringLiteral("context_tokens"), *contextTokens);
    if (pricing) {
        QJsonObject prices;
        const auto put = [&prices](const QString& key, const std::optional<QString>& value) {
            if (value)
                prices.insert(key, *value);
        };
        put(QStringLiteral("input_usd_per_mtok"), pricing->inputUSDPerMTok);
        put(QStringLiteral("cached_input_usd_per_mtok"), pricing->cachedInputUSDPerMTok);
        put(QStringLiteral("output_usd_per_mtok"), pricing->outputUSDPerMTok);
        object.insert(QStringLiteral("pricing"), prices);
    }
    return object;
}

} // namespace kestrolan
