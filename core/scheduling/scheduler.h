#pragma once

#include "scheduling/scheduled_run.h"
#include "scheduling/scheduled_task.h"
#include "scheduling/task_run.h"

#include <QObject>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <stop_token>

namespace date {
class time_zone;
}

namespace kestrolan {

class SchedulerClock;
class TaskNotifier;
class TaskRunner;
class TaskStore;

// Fires the enabled tasks of one account at their cron times in the system time zone. It sleeps
// until the earliest next firing, at most a minute, and looks again when woken (tasks changed,
// the machine resumed, the clock jumped).
//
// A firing is due when it is later than the task's last handled firing (lastScheduledFire, else
// the task's creation). Only the most recent due firing counts: within 24 hours of its time it
// runs once; older, it is recorded as a skipped run. Before either, the firing is claimed in the
// task document under the storage lock, so two schedulers on one account (the app and the
// headless one) never handle a firing twice. Runs go one at a time.
class Scheduler : public QObject {
    Q_OBJECT

public:
    static constexpr std::chrono::milliseconds maximumSleep = std::chrono::minutes(1);
    static constexpr std::chrono::seconds catchUpWindow = std::chrono::hours(24);

    // What the scheduler works for while attached: one account's store, and what runs and
    // announces its tasks (the notifier may be null). All must outlive the attachment.
    struct Attachment {
        TaskStore* store = nullptr;
        TaskRunner* runner = nullptr;
        TaskNotifier* notifier = nullptr;
    };

    // `zone` nullptr: the system's time zone, as it is at each look.
    explicit Scheduler(SchedulerClock& clock, const date::time_zone* zone = nullptr,
                       std::chrono::milliseconds runTimeout = ScheduledRun::defaultTimeout,
                       QObject* parent = nullptr);
    ~Scheduler() override;

    // Attaches to an account (and looks at its tasks at once) or, with nothing, detaches: no
    // further firing is handled and a run under way is stopped.
    void setAccount(std::optional<Attachment> account);
    bool isAttached() const { return m_account.has_value(); }

    // Looks at the tasks again now.
    void wake();

    // Nothing is being looked at, queued or run.
    bool isIdle() const { return !m_evaluating && !m_draining; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }

    static QString missedReason();
    // TZ or /etc/localtime as Qt reads them, else UTC.
    static const date::time_zone* systemTimeZone();

Q_SIGNALS:
    // A run was claimed and queued, started, or finished (with its preview).
    void runChanged(const kestrolan::TaskRun& run);
    void runFinished(const kestrolan::TaskRun& run, const QString& taskName);
    // The scheduler became idle.
    void idle();
    void errorChanged();

private:
    struct Pending {
        ScheduledTask task;
        TaskRun run;
    };

    QCoro::Task<void> evaluate();
    QCoro::Task<void> look(quint64 generation);
    QCoro::Task<void> drain(quint64 generation);
    void sleepUntilNext(const QList<ScheduledTask>& tasks);
    void setError(std::optional<QString> message);
    void checkIdle();

    SchedulerClock& m_clock;
    const date::time_zone* m_zone;
    std::chrono::milliseconds m_runTimeout;
    std::optional<Attachment> m_account;
    std::shared_ptr<ScheduledRun> m_run;
    std::deque<Pending> m_queue;
    std::optional<QUuid> m_currentRun;
    std::shared_ptr<std::stop_source> m_currentStop;
    // False once destroyed; coroutines resuming afterwards leave at once.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
    std::optional<QString> m_errorMessage;
    quint64 m_generation = 0;
    bool m_evaluating = false;
    bool m_again = false;
    bool m_draining = false;
};

} // namespace kestrolan
