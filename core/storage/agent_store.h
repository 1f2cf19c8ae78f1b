#pragma once

#include "account/catalog_model.h"
#include "storage/agent.h"
#include "storage/local_store_queue.h"

#include <QCoroTask>
#include <QDateTime>
#include <QList>
#include <QUuid>
#include <functional>
#include <optional>

namespace kestrolan {

// The agents of one account, sealed on disk in one record ("agents"); without storage, in
// memory. Every operation runs on the store's serial queue under the account's storage lock and
// reads the record afresh. Operations throw LocalPrivacyError (legacyImportRequired while
// plaintext files of the older layout wait to be imported into an account without sealed data);
// edits throw EditorValidationError before anything is written.
class AgentStore {
public:
    static constexpr auto queueLabel = QLatin1StringView("org.kestrolan.mac.agents");
    static constexpr auto record = QLatin1StringView("agents");

    // `now` stamps the created date; nothing means the system clock.
    explicit AgentStore(std::optional<EncryptedLocalStorage> storage,
                        std::function<QDateTime()> now = {});

    QCoro::Task<QList<Agent>> list();
    // Adds an agent made from `draft` (name trimmed) with a fresh id and the current date, once
    // it passes validation against `catalog`, and returns it.
    QCoro::Task<Agent> create(Agent draft, QList<CatalogModel> catalog);
    // Replaces the agent with `edited`'s id, keeping its created date; nothing when there is no
    // such agent.
    QCoro::Task<std::optional<Agent>> update(Agent edited, QList<CatalogModel> catalog);
    // False when there is no such agent.
    QCoro::Task<bool> remove(QUuid agentID);

    // Adds the agents whose ids are not present yet, without the legacy check: this is how the
    // older layout's data comes in. Validate them first.
    QCoro::Task<void> importLegacy(QList<Agent> agents);

    // Refuses new work (LocalPrivacyError unavailable) and waits for the work under way.
    QCoro::Task<void> close();
    bool isClosed() const;

private:
    QList<Agent> load(const EncryptedLocalStorage* storage) const;
    void save(const EncryptedLocalStorage* storage, const QList<Agent>& agents);

    std::function<QDateTime()> m_now;
    // In-memory mode only; touched by jobs on the queue alone.
    QList<Agent> m_transient;
    LocalStoreQueue m_queue;
};

} // namespace kestrolan
