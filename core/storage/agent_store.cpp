#include "storage/agent_store.h"

#include "storage/json_record_list.h"
#include "storage/legacy_import.h"

#include <algorithm>

namespace kestrolan {
namespace {

qsizetype indexOf(const QList<Agent>& agents, const QUuid& id) {
    const auto found = std::find_if(agents.begin(), agents.end(),
                                    [&](const Agent& agent) { return agent.id == id; });
    return found == agents.end() ? -1 : found - agents.begin();
}

} // namespace

AgentStore::AgentStore(std::optional<EncryptedLocalStorage> storage, std::function<QDateTime()> now)
    : m_now(now ? std::move(now) : [] { return QDateTime::currentDateTimeUtc(); })
    , m_queue(queueLabel, std::move(storage)) {}

QList<Agent> AgentStore::load(const EncryptedLocalStorage* storage) const {
    if (!storage)
        return m_transient;
    return listFromRecord<Agent>(storage->readDocument(record));
}

void AgentStore::save(const EncryptedLocalStorage* storage, const QList<Agent>& agents) {
    if (storage)
        storage->writeDocument(listToJson(agents), record);
    else
        m_transient = agents;
}

QCoro::Task<QList<Agent>> AgentStore::list() {
    return m_queue.run([this](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        return load(storage);
    });
}

QCoro::Task<Agent> AgentStore::create(Agent draft, QList<CatalogModel> catalog) {
    return m_queue.run([this, draft, catalog](EncryptedLocalStorage* storage) {
        draft.validate(catalog);
        LegacyImport::refuseWhilePending(storage);
        QList<Agent> agents = load(storage);
        Agent agent = draft;
        agent.id = QUuid::createUuid();
        agent.name = draft.name.trimmed();
        agent.temperature = draft.temperature.trimmed();
        agent.createdAt = m_now();
        agents.append(agent);
        save(storage, agents);
        return agent;
    });
}

QCoro::Task<std::optional<Agent>> AgentStore::update(Agent edited, QList<CatalogModel> catalog) {
    return m_queue.run(
        [this, edited, catalog](EncryptedLocalStorage* storage) -> std::optional<Agent> {
            edited.validate(catalog);
            LegacyImport::refuseWhilePending(storage);
            QList<Agent> agents = load(storage);
            const qsizetype index = indexOf(agents, edited.id);
            if (index < 0)
                return std::nullopt;
            Agent& agent = agents[index];
            agent.name = edited.name.trimmed();
            agent.instructions = edited.instructions;
            agent.model = edited.model;
            agent.temperature = edited.temperature.trimmed();
            save(storage, agents);
            return agent;
        });
}

QCoro::Task<bool> AgentStore::remove(QUuid agentID) {
    return m_queue.run([this, agentID](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        QList<Agent> agents = load(storage);
        const qsizetype index = indexOf(agents, agentID);
        if (index < 0)
            return false;
        agents.removeAt(index);
        save(storage, agents);
        return true;
    });
}

QCoro::Task<void> AgentStore::importLegacy(QList<Agent> agents) {
    return m_queue.run([this, agents](EncryptedLocalStorage* storage) {
        QList<Agent> kept = load(storage);
        const qsizetype before = kept.size();
        for (const auto& agent : agents) {
            if (indexOf(kept, agent.id) < 0)
                kept.append(agent);
        }
        if (kept.size() != before)
            save(storage, kept);
    });
}

QCoro::Task<void> AgentStore::close() {
    return m_queue.close();
}

bool AgentStore::isClosed() const {
    return m_queue.isClosed();
}

} // namespace kestrolan
