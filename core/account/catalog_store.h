#pragma once

#include "account/catalog.h"
#include "account/catalog_model.h"

#include <QCoroTask>
#include <QList>
#include <QObject>
#include <optional>

namespace kestrolan {

class APIClient;
class Defaults;

// The loaded model catalog and the selected model. Main thread. A failed refresh keeps the last
// catalog and the selection.
class CatalogStore : public QObject {
    Q_OBJECT

public:
    static constexpr auto lastUsedModelKey = QLatin1StringView("lastUsedModel");

    CatalogStore(APIClient& client, Defaults& defaults, QObject* parent = nullptr);

    const QList<CatalogModel>& models() const { return m_models; }
    const std::optional<QString>& selectedModelID() const { return m_selectedModelID; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    const CatalogModel* model(const QString& id) const;

    QCoro::Task<void> refresh();
    // Selects an existing, available model and remembers it as the last used one.
    bool select(const QString& id);
    bool isAvailable(const QString& id) const;

Q_SIGNALS:
    void changed();

private:
    // Takes a fetched catalog and, when nothing is selected yet, picks the model to use.
    void adopt(const Catalog& catalog);

    QList<CatalogModel> m_models;
    std::optional<QString> m_selectedModelID;
    std::optional<QString> m_errorMessage;
    APIClient& m_client;
    Defaults& m_defaults;
};

} // namespace kestrolan
