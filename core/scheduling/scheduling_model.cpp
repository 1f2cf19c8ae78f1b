#include "scheduling/scheduling_model.h"

#include "error.h"
#include "scheduling/scheduler.h"
#include "scheduling/task_store.h"
#include "support/checked.h"

namespace kestrolan {
namespace {

std::function<bool(StoredTasks&)> upsert(ScheduledTask task, QDateTime now) {
    return [task, now](StoredTasks& stored) {
        stored.upsert(task, now);
        return true;
    };
}

std::function<bool(StoredTasks&)> enable(QUuid id, bool enabled, QDateTime now) {
    return [id, enabled, now](StoredTasks& stored) {
        const ScheduledTask* held = stored.task(id);
        if (!held || held->enabled == enabled)
            return false;
        ScheduledTask task = *held;
        task.enabled = enabled;
        stored.upsert(task, now);
        return true;
    };
}

std::function<bool(StoredTasks&)> removal(QUuid id) {
    return [id](StoredTasks& stored) { return stored.remove(id); };
}

} // namespace

SchedulingModel::SchedulingModel(std::function<QDateTime()> now, QObject* parent)
    : QObject(parent)
    , m_now(now ? std::move(now) : [] { return QDateTime::currentDateTimeUtc(); }) {}

void SchedulingModel::setAccount(TaskStore* store, Scheduler* scheduler) {
    checkedIncrement(m_generation);
    if (m_scheduler)
        disconnect(m_scheduler, nullptr, this, nullptr);
    m_store = store;
    m_scheduler = scheduler;
    m_snapshot = {};
    m_previews.clear();
    m_errorMessage.reset();
    if (m_scheduler)
        connect(m_scheduler, &Scheduler::runChanged, this, &SchedulingModel::runChanged);
    Q_EMIT changed();
    if (m_store)
        reload();
}

QCoro::Task<void> SchedulingModel::reload() {
    if (!m_store)
        co_return;
    const std::shared_ptr<bool> alive = m_alive;
    const quint64 generation = m_generation;
    try {
        TaskStoreSnapshot snapshot = co_await m_store->load();
        if (!*alive || generation != m_generation)
            co_return;
        m_snapshot = std::move(snapshot);
        m_errorMessage.reset();
    } catch (const Error& error) {
        if (!*alive || generation != m_generation)
            co_return;
        m_errorMessage = error.description();
    }
    Q_EMIT changed();
}

void SchedulingModel::setFilter(TaskFilter filter) {
    if (m_filter == filter)
        return;
    m_filter = filter;
    Q_EMIT changed();
}

void SchedulingModel::setQuery(QString query) {
    if (m_query == query)
        return;
    m_query = std::move(query);
    Q_EMIT changed();
}

QList<ScheduledTask> SchedulingModel::visibleTasks() const {
    return apply(m_filter, tasks(), m_query);
}

QList<TaskRun> SchedulingModel::runs(const QUuid& taskID) const {
    QList<TaskRun> result;
    for (const auto& run : TaskRun::trim(m_snapshot.runs)) {
        if (run.taskID != taskID)
            continue;
        TaskRun shown = run;
        if (const auto preview = m_previews.constFind(run.id); preview != m_previews.constEnd())
            shown.preview = *preview;
        result.append(shown);
    }
    return result;
}

TaskDraft SchedulingModel::newDraft(const QString& model) const {
    TaskDraft draft;
    draft.model = model;
    draft.createdAt = m_now();
    return draft;
}

std::optional<TaskDraft> SchedulingModel::draft(const QUuid& taskID) const {
    const ScheduledTask* task = m_snapshot.schedules.task(taskID);
    if (!task)
        return std::nullopt;
    return TaskDraft::fromTask(*task);
}

QCoro::Task<std::optional<EditorValidationError>>
SchedulingModel::save(TaskDraft draft, QList<Agent> agents, QList<CatalogModel> catalog) {
    const QDateTime now = m_now();
    std::optional<ScheduledTask> task;
    try {
        task = draft.task(agents, catalog,
                          std::chrono::sys_seconds(std::chrono::seconds(now.toSecsSinceEpoch())),
                          Scheduler::systemTimeZone());
    } catch (const EditorValidationError& error) {
        co_return error;
    }
    co_await edit(upsert(*task, now));
    co_return std::nullopt;
}

QCoro::Task<void> SchedulingModel::setEnabled(QUuid taskID, bool enabled) {
    return edit(enable(taskID, enabled, m_now()));
}

QCoro::Task<void> SchedulingModel::remove(QUuid taskID) {
    return edit(removal(taskID));
}

QCoro::Task<void> SchedulingModel::edit(std::function<bool(StoredTasks&)> change) {
    if (!m_store)
        co_return;
    const std::shared_ptr<bool> alive = m_alive;
    const quint64 generation = m_generation;
    try {
        co_await m_store->updateTasks(std::move(change));
    } catch (const Error& error) {
        if (*alive && generation == m_generation) {
            m_errorMessage = error.description();
            Q_EMIT changed();
        }
        co_return;
    }
    if (!*alive || generation != m_generation)
        co_return;
    if (m_scheduler)
        m_scheduler->wake();
    co_await reload();
}

void SchedulingModel::runChanged(const TaskRun& run) {
    if (run.preview)
        m_previews.insert(run.id, *run.preview);
    bool found = false;
    for (auto& held : m_snapshot.runs) {
        if (held.id == run.id) {
            held = run;
            found = true;
        }
    }
    if (!found)
        m_snapshot.runs.append(run);
    Q_EMIT changed();
}

} // namespace kestrolan
