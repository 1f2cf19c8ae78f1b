#include "account/catalog.h"

#include "support/json_reader.h"

#include <QJsonArray>

namespace kestrolan {

Catalog Catalog::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    Catalog catalog;
    const auto models = reader.array(u"models");
    catalog.models.reserve(models.size());
    for (const auto& model : models) {
        if (!model.isObject())
            throw JsonReader::FieldError(QStringLiteral("models"));
        catalog.models.append(CatalogModel::fromJson(model.toObject()));
    }
    return catalog;
}

QJsonObject Catalog::toJson() const {
    QJsonArray array;
    for (const auto& model : models)
        array.append(model.toJson());
    return QJsonObject{{QStringLiteral("models"), array}};
}

} // namespace kestrolan
