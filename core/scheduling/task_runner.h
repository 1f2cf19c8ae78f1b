#pragma once

#include "scheduling/scheduled_task.h"
#include "scheduling/task_run.h"

#include <QCoroTask>
#include <QDateTime>
#include <QString>
#include <QUuid>
#include <optional>
#include <stop_token>

namespace kestrolan {

// Does the work of one run of a task: ChatTaskRunner asks the service and saves the answer as a
// chat. Lives on the main thread.
class TaskRunner {
public:
    // How a run ended.
    struct Outcome {
        TaskRun::Status status = TaskRun::Status::succeeded; // succeeded, failed or skipped
        std::optional<QUuid> chatID;
        std::optional<QString> preview;
        // Why it failed or was skipped.
        std::optional<QString> error;
    };

    virtual ~TaskRunner() = default;

    // Runs `task` for its firing at `scheduledFor`. Never throws for the run's own failures:
    // they come back as a failed or skipped outcome. Stops soon after `stop` is requested.
    virtual QCoro::Task<Outcome> run(ScheduledTask task, QDateTime scheduledFor,
                                     std::stop_token stop) = 0;
};

} // namespace kestrolan
