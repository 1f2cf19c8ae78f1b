#pragma once

#include "catalog_model.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <optional>
#include <stdexcept>
#include <vector>

namespace kestrolan::devservice {

class CatalogError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The models offered to the client, in catalog order.
class Catalog {
public:
    static inline const QString echoModel = QStringLiteral("kestrolan/echo");
    static inline const QString scriptedModel = QStringLiteral("kestrolan/scripted");

    struct UpstreamDefaults {
        std::optional<QString> url;
        std::optional<QString> apiKeyEnvironment;
    };

    // The two built-in models, one unavailable model and nothing else.
    static Catalog builtIn();
    // Reads a catalog file (the client's catalog JSON plus an optional "upstream" per model);
    // throws CatalogError with the reason.
    static Catalog fromFile(const QString& path, const UpstreamDefaults& defaults);

    // Adds "upstream/NAME" entries served by the default upstream; throws CatalogError.
    void addUpstreamModels(const QStringList& names, const UpstreamDefaults& defaults);

    const CatalogModel* find(const QString& id) const;
    const std::vector<CatalogModel>& models() const { return m_models; }
    QJsonObject toJson() const;

private:
    void add(CatalogModel model);

    std::vector<CatalogModel> m_models;
};

} // namespace kestrolan::devservice
