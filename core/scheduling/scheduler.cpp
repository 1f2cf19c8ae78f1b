#include "scheduling/scheduler.h"

#include "error.h"
#include "scheduling/cron_error.h"
#include "scheduling/scheduler_clock.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"
#include "support/checked.h"

#include <QTimeZone>
#include <algorithm>
#include <date/tz.h>

namespace kestrolan {
namespace {

std::chrono::sys_seconds toSeconds(const QDateTime& date) {
    return std::chrono::sys_seconds(std::chrono::seconds(date.toSecsSinceEpoch()));
}

QDateTime toDate(std::chrono::sys_seconds seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds.time_since_epoch().count(), QTimeZone::utc());
}

// Claims the firing for this scheduler unless the task is gone, paused, or the firing was
// handled already (here or by another process).
std::function<bool(StoredTasks&)> claimFiring(QUuid taskID, QDateTime due, QDateTime now) {
    return [taskID, due, now](StoredTasks& stored) {
        const ScheduledTask* task = stored.task(taskID);
        if (!task || !task->enabled)
            return false;
        if (const auto last = stored.lastScheduledFire.find(taskID);
            last != stored.lastScheduledFire.end() && last->second >= due)
            return false;
        return stored.claim(taskID, due, now);
    };
}

bool hasInterrupted(const QList<TaskRun>& runs, const QDateTime& startedBefore,
                    const std::optional<QUuid>& current) {
    return std::any_of(runs.begin(), runs.end(), [&](const TaskRun& run) {
        return run.isPending() && run.startedAt < startedBefore && run.id != current;
    });
}

// Pending runs that no scheduler can still be running: their process ended mid-run.
std::function<bool(QList<TaskRun>&)> failInterrupted(QDateTime startedBefore, QDateTime now,
                                                     std::optional<QUuid> current) {
    return [startedBefore, now, current](QList<TaskRun>& runs) {
        bool changed = false;
        for (auto& run : runs) {
            if (!run.isPending() || run.startedAt >= startedBefore || run.id == current)
                continue;
            run.status = TaskRun::Status::failed;
            run.finishedAt = now;
            run.error = ScheduledRun::interruptedMessage();
            changed = true;
        }
        return changed;
    };
}

} // namespace

Scheduler::Scheduler(SchedulerClock& clock, const date::time_zone* zone,
                     std::chrono::milliseconds runTimeout, QObject* parent)
    : QObject(parent)
    , m_clock(clock)
    , m_zone(zone)
    , m_runTimeout(runTimeout) {}

Scheduler::~Scheduler() {
    *m_alive = false;
    setAccount(std::nullopt);
}

QString Scheduler::missedReason() {
    return QStringLiteral("Missed: the computer was off or asleep for more than 24 hours after "
                          "this run was due.");
}

const date::time_zone* Scheduler::systemTimeZone() {
    try {
        return date::locate_zone(QTimeZone::systemTimeZoneId().toStdString());
    } catch (const std::runtime_error&) {
    }
    try {
        return date::current_zone();
    } catch (const std::runtime_error&) {
        return date::locate_zone("Etc/UTC");
    }
}

void Scheduler::setAccount(std::optional<Attachment> account) {
    checkedIncrement(m_generation);
    m_clock.cancel();
    m_queue.clear();
    if (m_currentStop)
        m_currentStop->request_stop();
    m_account = account;
    if (m_account) {
        m_run = std::make_shared<ScheduledRun>(
            *m_account->store, *m_account->runner, m_account->notifier,
            [this] { return m_clock.now(); }, m_runTimeout);
        wake();
    }
}

void Scheduler::wake() {
    if (!m_account)
        return;
    if (m_evaluating) {
        m_again = true;
        return;
    }
    evaluate();
}

QCoro::Task<void> Scheduler::evaluate() {
    const std::shared_ptr<bool> alive = m_alive;
    m_evaluating = true;
    const quint64 generation = m_generation;
    do {
        m_again = false;
        co_await look(generation);
        if (!*alive)
            co_return;
    } while (m_again && generation == m_generation);
    m_evaluating = false;
    if (generation == m_generation && !m_queue.empty() && !m_draining)
        drain(generation);
    checkIdle();
}

QCoro::Task<void> Scheduler::look(quint64 generation) {
    if (!m_account)
        co_return;
    const std::shared_ptr<bool> alive = m_alive;
    TaskStore& store = *m_account->store;
    const date::time_zone* zone = m_zone ? m_zone : systemTimeZone();
    QList<ScheduledTask> enabled;
    try {
        const TaskStoreSnapshot snapshot = co_await store.load();
        if (!*alive || generation != m_generation)
            co_return;
        QDateTime now = m_clock.now();
        const QDateTime interruptedBefore =
            now.addMSecs(-(m_runTimeout + std::chrono::minutes(5)).count());
        if (hasInterrupted(snapshot.runs, interruptedBefore, m_currentRun)) {
            co_await store.updateRuns(failInterrupted(interruptedBefore, now, m_currentRun));
            if (!*alive || generation != m_generation)
                co_return;
        }

        for (const auto& task : snapshot.schedules.tasks) {
            if (!task.enabled)
                continue;
            enabled.append(task);
            std::chrono::sys_seconds due;
            try {
                due = task.cron.mostRecentFire(toSeconds(now), zone);
            } catch (const CronError&) {
                continue;
            }
            const auto last = snapshot.schedules.lastScheduledFire.find(task.id);
            const QDateTime handled =
                last != snapshot.schedules.lastScheduledFire.end() ? last->second : task.createdAt;
            const QDateTime dueDate = toDate(due);
            if (dueDate <= handled)
                continue;
            now = m_clock.now();
            const bool won = co_await store.updateTasks(claimFiring(task.id, dueDate, now));
            if (!*alive || generation != m_generation)
                co_return;
            if (!won)
                continue;
            TaskRun run = m_run->queued(task, dueDate);
            if (toSeconds(now) - due > catchUpWindow) {
                run.status = TaskRun::Status::skipped;
                run.finishedAt = run.startedAt;
                run.error = missedReason();
                co_await m_run->record(run);
            } else {
                co_await m_run->record(run);
                m_queue.push_back({task, run});
            }
            if (!*alive || generation != m_generation)
                co_return;
            Q_EMIT runChanged(run);
            if (!run.isPending())
                Q_EMIT runFinished(run, task.name);
        }
        setError(std::nullopt);
    } catch (const Error& error) {
        if (!*alive || generation != m_generation)
            co_return;
        // Storage may come back (a keyring unlocked, a folder restored): look again later.
        setError(error.description());
    }
    sleepUntilNext(enabled);
}

void Scheduler::sleepUntilNext(const QList<ScheduledTask>& tasks) {
    const QDateTime now = m_clock.now();
    const date::time_zone* zone = m_zone ? m_zone : systemTimeZone();
    auto delay = maximumSleep;
    for (const auto& task : tasks) {
        try {
            const QDateTime next = toDate(task.cron.nextFire(toSeconds(now), zone));
            delay = std::min(delay, std::chrono::milliseconds(now.msecsTo(next)));
        } catch (const CronError&) {
        }
    }
    m_clock.wakeAfter(std::max(delay, std::chrono::milliseconds(0)), [this] { wake(); });
}

QCoro::Task<void> Scheduler::drain(quint64 generation) {
    const std::shared_ptr<bool> alive = m_alive;
    m_draining = true;
    while (generation == m_generation && !m_queue.empty()) {
        Pending pending = std::move(m_queue.front());
        m_queue.pop_front();
        // Both stay alive across a detach that happens meanwhile.
        const std::shared_ptr<ScheduledRun> run = m_run;
        const auto stop = std::make_shared<std::stop_source>();
        m_currentStop = stop;
        m_currentRun = pending.run.id;
        TaskRun started = pending.run;
        started.status = TaskRun::Status::running;
        Q_EMIT runChanged(started);
        const TaskRun finished =
            co_await run->perform(pending.task, pending.run, stop->get_token());
        if (!*alive)
            co_return;
        m_currentRun.reset();
        m_currentStop.reset();
        Q_EMIT runChanged(finished);
        Q_EMIT runFinished(finished, pending.task.name);
    }
    m_draining = false;
    // Firings queued for a newer attachment while this one ran.
    if (m_account && !m_queue.empty()) {
        drain(m_generation);
        co_return;
    }
    checkIdle();
}

void Scheduler::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    Q_EMIT errorChanged();
}

void Scheduler::checkIdle() {
    if (isIdle())
        Q_EMIT idle();
}

} // namespace kestrolan
