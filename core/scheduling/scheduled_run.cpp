#include "scheduling/scheduled_run.h"

#include "error.h"
#include "scheduling/task_notifier.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"

#include <QTimer>
#include <memory>

namespace kestrolan {

// Warnings by default: a terminal running a task wants its outcome, not the log.
Q_LOGGING_CATEGORY(schedulingLog, "org.kestrolan.mac.scheduling", QtWarningMsg)

namespace {

// The run's own stop: the caller's stop or the time-out, whichever comes first.
struct RunStop {
    std::stop_source source;
    bool timedOut = false;
};

std::function<void()> onTimeout(std::shared_ptr<RunStop> stop) {
    return [stop] {
        stop->timedOut = true;
        stop->source.request_stop();
    };
}

std::function<void()> forwardStop(std::shared_ptr<RunStop> stop) {
    return [stop] { stop->source.request_stop(); };
}

std::function<bool(QList<TaskRun>&)> replaceRun(TaskRun run) {
    return [run](QList<TaskRun>& runs) {
        TaskRun stored = run;
        stored.preview.reset();
        for (auto& held : runs) {
            if (held.id == stored.id) {
                held = stored;
                return true;
            }
        }
        runs.append(stored);
        return true;
    };
}

} // namespace

ScheduledRun::ScheduledRun(TaskStore& store, TaskRunner& runner, TaskNotifier* notifier,
                           std::function<QDateTime()> now, std::chrono::milliseconds timeout)
    : m_store(store)
    , m_runner(runner)
    , m_notifier(notifier)
    , m_now(std::move(now))
    , m_timeout(timeout) {}

QString ScheduledRun::interruptedMessage() {
    return QStringLiteral("The run was interrupted before it finished.");
}

QString ScheduledRun::timeoutMessage() {
    return QStringLiteral("The run took longer than 10 minutes and was stopped.");
}

TaskRun ScheduledRun::queued(const ScheduledTask& task, const QDateTime& scheduledFor) const {
    return TaskRun{.id = QUuid::createUuid(),
                   .taskID = task.id,
                   .scheduledFor = scheduledFor.toUTC(),
                   .startedAt = m_now().toUTC(),
                   .status = TaskRun::Status::queued};
}

QCoro::Task<void> ScheduledRun::record(TaskRun run) {
    try {
        co_await m_store.updateRuns(replaceRun(std::move(run)));
    } catch (const Error& error) {
        qCWarning(schedulingLog) << "Could not record a task run:" << error.description();
    }
}

QCoro::Task<TaskRun> ScheduledRun::perform(ScheduledTask task, TaskRun run, std::stop_token stop) {
    run.status = TaskRun::Status::running;
    run.startedAt = m_now().toUTC();
    co_await record(run);

    auto runStop = std::make_shared<RunStop>();
    const std::stop_callback<std::function<void()>> forward(stop, forwardStop(runStop));
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, onTimeout(runStop));
    timer.start(m_timeout);

    const TaskRunner::Outcome outcome =
        co_await m_runner.run(task, run.scheduledFor, runStop->source.get_token());
    timer.stop();

    run.finishedAt = m_now().toUTC();
    if (runStop->timedOut) {
        run.status = TaskRun::Status::failed;
        run.error = timeoutMessage();
    } else if (stop.stop_requested()) {
        run.status = TaskRun::Status::failed;
        run.error = interruptedMessage();
    } else {
        run.status = outcome.status;
        run.chatID = outcome.chatID;
        run.preview = outcome.preview;
        run.error = outcome.error;
    }
    co_await record(run);
    qCInfo(schedulingLog).noquote() << "Task run finished:" << TaskRun::toString(run.status);

    if (task.notify && m_notifier) {
        const QString body = run.status == TaskRun::Status::succeeded
                                 ? run.preview.value_or(QString())
                                 : run.error.value_or(QString());
        try {
            co_await m_notifier->notify(task.name, body, run.chatID);
        } catch (const Error& error) {
            qCWarning(schedulingLog).noquote()
                << "Could not post the notification of a task run:" << error.description();
        }
    }
    const TaskRun finished = run;
    co_return finished;
}

} // namespace kestrolan
