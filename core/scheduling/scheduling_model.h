#pragma once

#include "scheduling/task_draft.h"
#include "scheduling/task_filter.h"
#include "scheduling/task_store_snapshot.h"

#include <QCoroTask>
#include <QHash>
#include <QObject>
#include <functional>
#include <optional>

namespace kestrolan {

class Scheduler;
class TaskStore;

// What the scheduling screens show and do: the account's tasks with their filter and search,
// each task's runs (with the previews of runs finished while the app runs), drafts for the task
// editor, and the last storage failure. Main thread; every change emits changed().
class SchedulingModel : public QObject {
    Q_OBJECT

public:
    // `now` is the wall clock; nothing means the system clock.
    explicit SchedulingModel(std::function<QDateTime()> now = {}, QObject* parent = nullptr);
    ~SchedulingModel() override { *m_alive = false; }

    // Attaches to one account's store, and to the scheduler that runs its tasks (to wake it
    // after an edit and to hear of runs); with nulls, detaches and empties the lists. Loads the
    // store at once.
    void setAccount(TaskStore* store, Scheduler* scheduler);

    // Reads the store again (another process may have changed it).
    QCoro::Task<void> reload();

    const QList<ScheduledTask>& tasks() const { return m_snapshot.schedules.tasks; }
    TaskFilter filter() const { return m_filter; }
    void setFilter(TaskFilter filter);
    const QString& query() const { return m_query; }
    void setQuery(QString query);
    // The tasks that pass the filter and the query, in their stored order.
    QList<ScheduledTask> visibleTasks() const;

    // The task's runs, pending first, then newest first.
    QList<TaskRun> runs(const QUuid& taskID) const;

    // The last storage failure, until an operation succeeds.
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }

    // A fresh draft answered by `model`; an existing task's draft, if there is one.
    TaskDraft newDraft(const QString& model) const;
    std::optional<TaskDraft> draft(const QUuid& taskID) const;

    // Saves the draft as a new or changed task once it passes validation against the current
    // agents and catalog; otherwise returns the validation error and writes nothing. A storage
    // failure sets errorMessage().
    QCoro::Task<std::optional<EditorValidationError>> save(TaskDraft draft, QList<Agent> agents,
                                                           QList<CatalogModel> catalog);
    QCoro::Task<void> setEnabled(QUuid taskID, bool enabled);
    QCoro::Task<void> remove(QUuid taskID);

Q_SIGNALS:
    void changed();

private:
    QCoro::Task<void> edit(std::function<bool(StoredTasks&)> change);
    void runChanged(const TaskRun& run);

    std::function<QDateTime()> m_now;
    TaskStore* m_store = nullptr;
    Scheduler* m_scheduler = nullptr;
    TaskStoreSnapshot m_snapshot;
    // Previews live only in memory, for the runs finished since the app started.
    QHash<QUuid, QString> m_previews;
    TaskFilter m_filter = TaskFilter::all;
    QString m_query;
    std::optional<QString> m_errorMessage;
    quint64 m_generation = 0;
    // False once destroyed; coroutines resuming afterwards leave at once.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace kestrolan
