#include "model/local_account_work.h"

#include "scheduling/scheduler.h"
#include "scheduling/scheduling_model.h"

#include <QCoroSignal>

namespace kestrolan {

LocalAccountWork::LocalAccountWork(LocalAccountContext context,
                                   std::shared_ptr<const LocalKeyStore> keys, QString root,
                                   APIClient& client, Scheduler& scheduler,
                                   SchedulingModel& scheduling, TaskNotifier* notifier)
    : m_data(std::move(context), std::move(keys), std::move(root))
    , m_runner(client, &m_data.projects(), &m_data.agents())
    , m_scheduler(scheduler)
    , m_scheduling(scheduling) {
    m_scheduler.setAccount(Scheduler::Attachment{&m_data.tasks(), &m_runner, notifier});
    m_scheduling.setAccount(&m_data.tasks(), &m_scheduler);
}

LocalAccountWork::~LocalAccountWork() {
    // Never leave the scheduler pointing at stores that are going away.
    release();
}

void LocalAccountWork::release() {
    if (std::exchange(m_attached, false)) {
        m_scheduling.setAccount(nullptr, nullptr);
        m_scheduler.setAccount(std::nullopt);
    }
}

QCoro::Task<void> LocalAccountWork::detach() {
    release();
    while (!m_scheduler.isIdle())
        co_await qCoro(&m_scheduler, &Scheduler::idle);
}

QCoro::Task<void> LocalAccountWork::close() {
    co_await detach();
    co_await m_data.close();
}

QCoro::Task<void> LocalAccountWork::forget() {
    co_await detach();
    co_await m_data.forgetLocalData();
}

} // namespace kestrolan
