#pragma once

#include "account/catalog_model.h"

#include <QJsonObject>
#include <QList>

namespace kestrolan {

// The models the user may chat with, in the service's order. JSON: {"models": [...]}.
struct Catalog {
    QList<CatalogModel> models;

    bool operator==(const Catalog&) const = default;

    // Throws JsonReader::FieldError for a missing or mistyped field.
    static Catalog fromJson(const QJsonObject& object);
    QJsonObject toJson() const;
};

} // namespace kestrolan
