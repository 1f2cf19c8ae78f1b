#pragma once

#include "scheduling/task_store.h"
#include "storage/agent_store.h"
#include "storage/encrypted_local_storage.h"
#include "storage/local_account_context.h"
#include "storage/project_store.h"

#include <QCoroTask>
#include <QString>
#include <memory>

namespace kestrolan {

class LocalKeyStore;

// One signed-in account's local data: its projects, agents and scheduled tasks, each store on
// its own queue over the same sealed account directory. Exists while the account is signed in;
// signing out closes it.
class LocalAccountData {
public:
    // Opens nothing on disk yet: each store reads its records when first asked.
    LocalAccountData(LocalAccountContext context, std::shared_ptr<const LocalKeyStore> keys,
                     QString root = EncryptedLocalStorage::defaultRoot());
    LocalAccountData(const LocalAccountData&) = delete;
    LocalAccountData& operator=(const LocalAccountData&) = delete;

    const LocalAccountContext& context() const { return m_context; }
    ProjectStore& projects() { return m_projects; }
    AgentStore& agents() { return m_agents; }
    TaskStore& tasks() { return m_tasks; }

    // Lets the work under way finish and refuses any more.
    QCoro::Task<void> close();
    // Removes the account's records and key; other accounts and saved chats stay. Every store is
    // closed afterwards, also when the removal fails.
    QCoro::Task<void> forgetLocalData();

private:
    LocalAccountContext m_context;
    ProjectStore m_projects;
    AgentStore m_agents;
    TaskStore m_tasks;
};

} // namespace kestrolan
