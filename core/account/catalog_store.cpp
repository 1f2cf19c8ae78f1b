#include "account/catalog_store.h"

#include "account/catalog.h"
#include "error.h"
#include "platform/defaults.h"
#include "service/api_client.h"

#include <algorithm>

namespace kestrolan {

CatalogStore::CatalogStore(APIClient& client, Defaults& defaults, QObject* parent)
    : QObject(parent)
    , m_client(client)
    , m_defaults(defaults) {}

const CatalogModel* CatalogStore::model(const QString& id) const {
    const auto found = std::find_if(m_models.begin(), m_models.end(),
                                    [&id](const CatalogModel& model) { return model.id == id; });
    return found == m_models.end() ? nullptr : &*found;
}

QCoro::Task<void> CatalogStore::refresh() {
    try {
        const auto catalog = co_await m_client.catalog();
        adopt(catalog);
        m_errorMessage.reset();
    } catch (const Error& error) {
        m_errorMessage = error.description();
    }
    Q_EMIT changed();
}

void CatalogStore::adopt(const Catalog& catalog) {
    m_models = catalog.models;
    if (m_selectedModelID)
        return;
    // The remembered model is taken as stored, even when the new list lacks it.
    if (const auto lastUsed = m_defaults.string(lastUsedModelKey)) {
        m_selectedModelID = lastUsed;
        return;
    }
    const auto first = std::find_if(m_models.begin(), m_models.end(),
                                    [](const auto& model) { return model.available; });
    if (first != m_models.end())
        m_selectedModelID = first->id;
}

bool CatalogStore::select(const QString& id) {
    if (!isAvailable(id))
        return false;
    m_selectedModelID = id;
    m_defaults.setValue(lastUsedModelKey, id);
    Q_EMIT changed();
    return true;
}

bool CatalogStore::isAvailable(const QString& id) const {
    const auto* found = model(id);
    return found && found->available;
}

} // namespace kestrolan
