#pragma once

#include "scheduling/scheduled_task.h"
#include "scheduling/task_run.h"

#include <QCoroTask>
#include <QDateTime>
#include <QLoggingCategory>
#include <chrono>
#include <functional>
#include <stop_token>

namespace kestrolan {

class TaskNotifier;
class TaskRunner;
class TaskStore;

Q_DECLARE_LOGGING_CATEGORY(schedulingLog)

// Carries one run through its states: queued, running, then succeeded, failed or skipped, each
// written to the run history as it happens; then the notification when the task asks for one.
// The scheduler uses it for each claimed firing, `tasks run-now` for a run on demand.
class ScheduledRun {
public:
    static constexpr std::chrono::milliseconds defaultTimeout = std::chrono::minutes(10);

    // `notifier` may be null; `now` is the wall clock.
    ScheduledRun(TaskStore& store, TaskRunner& runner, TaskNotifier* notifier,
                 std::function<QDateTime()> now,
                 std::chrono::milliseconds timeout = defaultTimeout);

    // A new queued run of `task` for its firing at `scheduledFor`.
    TaskRun queued(const ScheduledTask& task, const QDateTime& scheduledFor) const;

    // Writes `run` (normally queued), runs it and returns it finished, its preview included. A
    // run that takes longer than the time-out, or whose `stop` is requested, is stopped and
    // fails. Failures to write the
    // history or to notify are logged, never thrown: the run's own outcome stands.
    QCoro::Task<TaskRun> perform(ScheduledTask task, TaskRun run, std::stop_token stop = {});

    // Writes one state of a run into the history (replacing the run with its id).
    QCoro::Task<void> record(TaskRun run);

    static QString timeoutMessage();
    // A run stopped by its caller (a detach, a sign-out, the process ending).
    static QString interruptedMessage();

private:
    TaskStore& m_store;
    TaskRunner& m_runner;
    TaskNotifier* m_notifier;
    std::function<QDateTime()> m_now;
    std::chrono::milliseconds m_timeout;
};

} // namespace kestrolan
