#include "catalog.h"

#include "api_exception.h"
#include "money.h"
#include "request_json.h"

#include <QFile>
#include <QJsonArray>
#include <QUrl>

namespace kestrolan::devservice {

namespace {

constexpr qint64 maximumCatalogFileBytes = 4 * 1024 * 1024;

CatalogModel::Price price(const QString& text) {
    return {text, *Money::parse(text)};
}

std::optional<QString> resolveApiKey(const std::optional<QString>& variable,
                                     const QString& modelId) {
    if (!variable)
        return std::nullopt;
    const auto value = qEnvironmentVariable(variable->toUtf8().constData());
    if (value.isEmpty())
        throw CatalogError(("the environment variable " + variable->toStdString() +
                            " (API key of " + modelId.toStdString() + ") is not set"));
    return value;
}

std::optional<CatalogModel::Price> readPrice(const RequestJson& json, const QString& key) {
    const auto text = json.optionalString(key);
    if (!text)
        return std::nullopt;
    const auto value = Money::parse(*text);
    if (!value)
        throw ApiException::invalidRequest(
            QStringLiteral("\"") + json.field(key) +
                QStringLiteral("\" must be decimal dollars with at most six decimals."),
            json.field(key));
    return CatalogModel::Price{*text, *value};
}

CatalogModel readModel(const RequestJson& json, const Catalog::UpstreamDefaults& defaults) {
    json.rejectUnknownKeys({QStringLiteral("id"), QStringLiteral("display_name"),
                            QStringLiteral("available"), QStringLiteral("description"),
                            QStringLiteral("capabilities"), QStringLiteral("context_tokens"),
                            QStringLiteral("max_output_tokens"),
                            QStringLiteral("default_output_tokens"), QStringLiteral("pricing"),
                            QStringLiteral("upstream")});
    const auto invalid = [&json](const QString& key, const QString& rule) {
        return ApiException::invalidRequest(
            QStringLiteral("\"") + json.field(key) + QStringLiteral("\" ") + rule, json.field(key));
    };

    CatalogModel model;
    model.id = json.string(QStringLiteral("id"));
    if (model.id.trimmed().isEmpty() || model.id.trimmed() != model.id)
        throw invalid(QStringLiteral("id"), QStringLiteral("must be a non-empty identifier."));
    model.displayName = json.string(QStringLiteral("display_name"));
    model.available = json.optionalBoolean(QStringLiteral("available")).value_or(true);
    model.description = json.optionalString(QStringLiteral("description")).value_or(QString());
    if (const auto capabilities = json.optionalObject(QStringLiteral("capabilities"))) {
        const RequestJson caps(*capabilities, json.field(QStringLiteral("capabilities")));
        caps.rejectUnknownKeys({QStringLiteral("tool_calling"), QStringLiteral("response_format")});
        model.capabilities = CatalogModel::Capabilities{
            caps.optionalBoolean(QStringLiteral("tool_calling")).value_or(false),
            caps.optionalBoolean(QStringLiteral("response_format")).value_or(false)};
    }
    model.contextTokens = json.optionalInteger(QStringLiteral("context_tokens"));
    if (model.contextTokens && *model.contextTokens < 1)
        throw invalid(QStringLiteral("context_tokens"), QStringLiteral("must be positive."));
    model.maxOutputTokens = json.optionalInteger(QStringLiteral("max_output_tokens")).value_or(0);
    if (model.maxOutputTokens < 1)
        throw invalid(QStringLiteral("max_output_tokens"),
                      QStringLiteral("is required and must be positive."));
    model.defaultOutputTokens = json.optionalInteger(QStringLiteral("default_output_tokens"))
                                    .value_or(model.maxOutputTokens);
    if (model.defaultOutputTokens < 1 || model.defaultOutputTokens > model.maxOutputTokens)
        throw invalid(QStringLiteral("default_output_tokens"),
                      QStringLiteral("must be from 1 to max_output_tokens."));
    if (const auto pricing = json.optionalObject(QStringLiteral("pricing"))) {
        const RequestJson prices(*pricing, json.field(QStringLiteral("pricing")));
        prices.rejectUnknownKeys({QStringLiteral("input_usd_per_mtok"),
                                  QStringLiteral("cached_input_usd_per_mtok"),
                                  QStringLiteral("output_usd_per_mtok")});
        model.pricing =
            CatalogModel::Pricing{readPrice(prices, QStringLiteral("input_usd_per_mtok")),
                                  readPrice(prices, QStringLiteral("cached_input_usd_per_mtok")),
                                  readPrice(prices, QStringLiteral("output_usd_per_mtok"))};
    }
    if (const auto upstream = json.optionalObject(QStringLiteral("upstream"))) {
        const RequestJson entry(*upstream, json.field(QStringLiteral("upstream")));
        entry.rejectUnknownKeys(
            {QStringLiteral("model"), QStringLiteral("url"), QStringLiteral("api_key_env")});
        const auto url = entry.optionalString(QStringLiteral("url"));
        if (!url && !defaults.url)
            throw invalid(QStringLiteral("upstream"),
                          QStringLiteral("needs a \"url\" when --upstream-url is not given."));
        if (url) {
            const QUrl parsed(*url, QUrl::StrictMode);
            const auto scheme = parsed.scheme().toLower();
            if (!parsed.isValid() || parsed.host().isEmpty() ||
                (scheme != u"http" && scheme != u"https"))
                throw invalid(QStringLiteral("upstream.url"),
                              QStringLiteral("must be an http or https URL."));
        }
        model.upstream = CatalogModel::Upstream{
            entry.string(QStringLiteral("model")), url.value_or(defaults.url.value_or(QString())),
            resolveApiKey(entry.optionalString(QStringLiteral("api_key_env"))
                              ? entry.optionalString(QStringLiteral("api_key_env"))
                              : defaults.apiKeyEnvironment,
                          model.id)};
    } else if (model.available && model.id != Catalog::echoModel &&
               model.id != Catalog::scriptedModel) {
        throw invalid(QStringLiteral("id"),
                      QStringLiteral("names no built-in model, so an available entry needs an "
                                     "\"upstream\"."));
    }
    return model;
}

} // namespace

Catalog Catalog::builtIn() {
    Catalog catalog;
    catalog.add(CatalogModel{
        .id = echoModel,
        .displayName = QStringLiteral("Echo"),
        .available = true,
        .description = QStringLiteral("Answers with your last message, word by word. No tool "
                                      "calling."),
        .capabilities = CatalogModel::Capabilities{false, false},
        .contextTokens = 128'000,
        .maxOutputTokens = 16'384,
        .defaultOutputTokens = 1'024,
        .pricing =
            CatalogModel::Pricing{price(QStringLiteral("0.15")), price(QStringLiteral("0.075")),
                                  price(QStringLiteral("0.60"))},
    });
    catalog.add(CatalogModel{
        .id = scriptedModel,
        .displayName = QStringLiteral("Scripted"),
        .available = true,
        .description = QStringLiteral("Deterministic replies driven by @directives in your "
                                      "message, for tests."),
        .capabilities = CatalogModel::Capabilities{true, true},
        .contextTokens = 400'000,
        .maxOutputTokens = 128'000,
        .defaultOutputTokens = 8'192,
        .pricing =
            CatalogModel::Pricing{price(QStringLiteral("1.25")), price(QStringLiteral("0.125")),
                                  price(QStringLiteral("10.00"))},
    });
    catalog.add(CatalogModel{
        .id = QStringLiteral("kestrolan/retired"),
        .displayName = QStringLiteral("Retired"),
        .available = false,
        .description = QStringLiteral("A model that is listed but can no longer be used."),
        .capabilities = CatalogModel::Capabilities{true, false},
        .contextTokens = 200'000,
        .maxOutputTokens = 8'192,
        .defaultOutputTokens = 4'096,
        .pricing = CatalogModel::Pricing{price(QStringLiteral("3.00")), std::nullopt,
                                         price(QStringLiteral("15.00"))},
    });
    return catalog;
}

Catalog Catalog::fromFile(const QString& path, const UpstreamDefaults& defaults) {
    const auto fail = [&path](const QString& reason) {
        return CatalogError(QString(path + QStringLiteral(": ") + reason).toStdString());
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw fail(file.errorString());
    const auto bytes = file.read(maximumCatalogFileBytes + 1);
    if (bytes.size() > maximumCatalogFileBytes)
        throw fail(QStringLiteral("larger than 4 MiB"));

    Catalog catalog;
    try {
        const auto json = RequestJson::parse(bytes);
        json.rejectUnknownKeys({QStringLiteral("models")});
        const auto models = json.array(QStringLiteral("models"));
        for (qsizetype i = 0; i < models.size(); ++i) {
            const auto key = QStringLiteral("models[%1]").arg(i);
            if (!models[i].isObject())
                throw ApiException::invalidRequest(QStringLiteral("\"") + key +
                                                   QStringLiteral("\" must be an object."));
            auto model = readModel(RequestJson(models[i].toObject(), key), defaults);
            if (catalog.find(model.id))
                throw ApiException::invalidRequest(QStringLiteral("the id \"") + model.id +
                                                   QStringLiteral("\" appears twice."));
            catalog.add(std::move(model));
        }
    } catch (const ApiException& error) {
        throw fail(error.message());
    } catch (const CatalogError& error) {
        throw fail(QString::fromStdString(error.what()));
    }
    return catalog;
}

void Catalog::addUpstreamModels(const QStringList& names, const UpstreamDefaults& defaults) {
    for (const auto& name : names) {
        const QString id = QStringLiteral("upstream/") + name;
        if (find(id))
            throw CatalogError(("the model " + id.toStdString() + " is listed twice"));
        add(CatalogModel{
            .id = id,
            .displayName = name,
            .available = true,
            .description = name + QStringLiteral(" on ") + defaults.url.value_or(QString()),
            .capabilities = CatalogModel::Capabilities{true, false},
            .contextTokens = std::nullopt,
            .maxOutputTokens = 32'768,
            .defaultOutputTokens = 2'048,
            .pricing = CatalogModel::Pricing{price(QStringLiteral("0")), std::nullopt,
                                             price(QStringLiteral("0"))},
            .upstream = CatalogModel::Upstream{name, defaults.url.value_or(QString()),
                                               resolveApiKey(defaults.apiKeyEnvironment, id)},
        });
    }
}

void Catalog::add(CatalogModel model) {
    m_models.push_back(std::move(model));
}

const CatalogModel* Catalog::find(const QString& id) const {
    for (const auto& model : m_models)
        if (model.id == id)
            return &model;
    return nullptr;
}

QJsonObject Catalog::toJson() const {
    QJsonArray models;
    for (const auto& model : m_models)
        models.append(model.toJson());
    return QJsonObject{{QStringLiteral("models"), models}};
}

} // namespace kestrolan::devservice
