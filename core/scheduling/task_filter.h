#pragma once

#include "scheduling/scheduled_task.h"

#include <QList>
#include <QString>
#include <array>
#include <optional>

namespace kestrolan {

// The task list's filter, in the order the list offers it.
enum class TaskFilter { all, active, paused };

inline constexpr std::array allTaskFilters{TaskFilter::all, TaskFilter::active, TaskFilter::paused};

// "All", "Active", "Paused".
QString toString(TaskFilter filter);
std::optional<TaskFilter> taskFilterFromString(QStringView text);

// The tasks in the filter's state whose name contains the query (trimmed; ignoring case and
// diacritics), in their input order. An empty query keeps every task of that state; the prompt
// is never searched.
QList<ScheduledTask> apply(TaskFilter filter, const QList<ScheduledTask>& tasks,
                           const QString& query);

// Whether `text` contains `query` when both are compared without case and diacritics: "Über"
// contains "uber", "CAFÉ" contains "cafe".
bool containsIgnoringCaseAndDiacritics(const QString& text, const QString& query);

} // namespace kestrolan
