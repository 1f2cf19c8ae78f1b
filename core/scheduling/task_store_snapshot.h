#pragma once

#include "scheduling/stored_tasks.h"
#include "scheduling/task_run.h"

#include <QList>

namespace kestrolan {

// Everything one account's task store holds: the task document and the run history.
struct TaskStoreSnapshot {
    StoredTasks schedules;
    QList<TaskRun> runs;

    bool operator==(const TaskStoreSnapshot&) const = default;
};

} // namespace kestrolan
