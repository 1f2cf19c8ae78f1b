#pragma once

#include "model/local_account_link.h"
#include "scheduling/chat_task_runner.h"
#include "storage/local_account_data.h"

#include <QCoroTask>
#include <memory>

namespace kestrolan {

class APIClient;
class LocalKeyStore;
class Scheduler;
class SchedulingModel;
class TaskNotifier;

// The signed-in account's encrypted local data, with the app's scheduler and scheduling screens
// attached to its tasks for as long as it is open.
class LocalAccountWork final : public LocalAccountLink {
public:
    LocalAccountWork(LocalAccountContext context, std::shared_ptr<const LocalKeyStore> keys,
                     QString root, APIClient& client, Scheduler& scheduler,
                     SchedulingModel& scheduling, TaskNotifier* notifier);
    ~LocalAccountWork() override;

    const LocalAccountContext& context() const override { return m_data.context(); }
    LocalAccountData& data() { return m_data; }
    QCoro::Task<void> close() override;
    QCoro::Task<void> forget() override;

private:
    // Takes the scheduler and the scheduling screens off this account's stores.
    void release();
    // Releases, then waits until no run is under way.
    QCoro::Task<void> detach();

    LocalAccountData m_data;
    ChatTaskRunner m_runner;
    Scheduler& m_scheduler;
    SchedulingModel& m_scheduling;
    bool m_attached = true;
};

} // namespace kestrolan
