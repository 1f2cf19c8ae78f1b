#pragma once

#include "account/catalog_model.h"

#include <QList>
#include <QString>
#include <optional>

namespace kestrolan {

// The model picker's search text and keyboard highlight. Only available models can be
// highlighted; unavailable ones are listed after them.
struct ModelPickerState {
    QString query;
    std::optional<QString> highlightedID;

    explicit ModelPickerState(std::optional<QString> selectedID = std::nullopt)
        : highlightedID(std::move(selectedID)) {}

    // Models whose display name or description contains the trimmed query, ignoring case and
    // diacritics (every model for an empty query): available ones first, each group in catalog
    // order.
    QList<CatalogModel> filtered(const QList<CatalogModel>& models) const;
    // Arrow keys: moves the highlight by `delta` over the available filtered models, wrapping.
    void move(int delta, const QList<CatalogModel>& models);
    // After the query or the catalog changed: keeps a highlight that is still a candidate,
    // otherwise highlights the first candidate, or none.
    void reconcile(const QList<CatalogModel>& models);

    bool operator==(const ModelPickerState&) const = default;

private:
    QList<CatalogModel> candidates(const QList<CatalogModel>& models) const;
};

} // namespace kestrolan
