#include "storage/local_account_data.h"

namespace kestrolan {

LocalAccountData::LocalAccountData(LocalAccountContext context,
                                   std::shared_ptr<const LocalKeyStore> keys, QString root)
    : m_context(std::move(context))
    , m_projects(EncryptedLocalStorage(root, m_context, keys))
    , m_agents(EncryptedLocalStorage(root, m_context, keys))
    , m_tasks(EncryptedLocalStorage(root, m_context, keys)) {}

QCoro::Task<void> LocalAccountData::close() {
    co_await m_agents.close();
    co_await m_tasks.close();
    co_await m_projects.close();
}

QCoro::Task<void> LocalAccountData::forgetLocalData() {
    // The other stores stop first so that none writes a record into the directory being removed.
    co_await m_agents.close();
    co_await m_tasks.close();
    std::exception_ptr failure;
    try {
        co_await m_projects.forgetLocalData();
    } catch (...) {
        failure = std::current_exception();
    }
    co_await m_projects.close();
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace kestrolan
