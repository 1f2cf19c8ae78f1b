#include "manual_scheduler_clock.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/chat_task_runner.h"
#include "scheduling/scheduler.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"

#include <QCoroTimer>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <time.h>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

using test::ManualSchedulerClock;
using test::runTask;
using test::runUntil;

QDateTime utc(const QString& text) {
    return QDateTime::fromString(text, Qt::ISODate).toUTC();
}

// The process's time zone for one test, put back afterwards.
class TimeZoneGuard {
public:
    explicit TimeZoneGuard(const char* zone)
        : m_previous(qgetenv("TZ"))
        , m_hadPrevious(qEnvironmentVariableIsSet("TZ")) {
        qputenv("TZ", zone);
        tzset();
    }
    ~TimeZoneGuard() {
        if (m_hadPrevious)
            qputenv("TZ", m_previous);
        else
            qunsetenv("TZ");
        tzset();
    }

private:
    QByteArray m_previous;
    bool m_hadPrevious;
};

// Records each run it is asked for, at the scheduler's clock, and succeeds.
class RecordingRunner final : public TaskRunner {
public:
    explicit RecordingRunner(const ManualSchedulerClock& clock)
        : m_clock(clock) {}

    struct Call {
        QString task;
        QDateTime scheduledFor;
        QDateTime startedAt;
    };

    QCoro::Task<Outcome> run(ScheduledTask task, QDateTime scheduledFor, std::stop_token) override {
        calls.push_back({task.name, scheduledFor, m_clock.now()});
        co_return Outcome{.status = TaskRun::Status::succeeded,
                          .chatID = QUuid::createUuid(),
                          .preview = u"Done"_s};
    }

    std::vector<Call> calls;

private:
    const ManualSchedulerClock& m_clock;
};

class SchedulerTest : public ::testing::Test {
protected:
    explicit SchedulerTest(QDateTime start = utc(u"2026-03-27T12:00:00Z"_s))
        : clock(start) {}

    ~SchedulerTest() override { scheduler.setAccount(std::nullopt); }

    ScheduledTask addTask(const QString& name, const char16_t* cron, bool enabled = true) {
        const ScheduledTask task{.id = QUuid::createUuid(),
                                 .name = name,
                                 .prompt = u"Go."_s,
                                 .model = u"kestrolan/echo"_s,
                                 .cron = CronExpression(cron),
                                 .enabled = enabled,
                                 .createdAt = clock.now()};
        StoredTasks stored = runTask(store.load()).schedules;
        stored.upsert(task, clock.now());
        runTask(store.saveTasks(stored));
        return task;
    }

    void attach() {
        scheduler.setAccount(Scheduler::Attachment{&store, &runner, nullptr});
        settle();
    }

    void settle() {
        runUntil([this] { return scheduler.isIdle(); });
    }

    // Lets time run to `end`, waking the scheduler whenever it asked to be woken.
    void runUntilTime(const QDateTime& end) {
        while (clock.runToDeadline(end))
            settle();
        clock.runTo(end);
    }

    QList<TaskRun> history() { return runTask(store.load()).runs; }

    ManualSchedulerClock clock;
    TaskStore store{std::nullopt};
    RecordingRunner runner{clock};
    Scheduler scheduler{clock};
};

TEST_F(SchedulerTest, FiresAtExactWallTimesAcrossDaylightSavingChanges) {
    const TimeZoneGuard berlin("Europe/Berlin");
    addTask(u"Night"_s, u"30 2 * * *");
    addTask(u"Morning"_s, u"0 9 * * *");
    attach();
    // Spring: 02:00-03:00 does not exist on 29 March, so "Night" skips that day.
    runUntilTime(utc(u"2026-03-31T00:00:00Z"_s));
    std::vector<std::pair<QString, QDateTime>> fired;
    for (const auto& call : runner.calls) {
        fired.emplace_back(call.task, call.scheduledFor);
        // Woken on time, not up to a minute late.
        EXPECT_EQ(call.startedAt, call.scheduledFor);
    }
    const std::vector<std::pair<QString, QDateTime>> spring{
        {u"Night"_s, utc(u"2026-03-28T01:30:00Z"_s)},   // 02:30 CET
        {u"Morning"_s, utc(u"2026-03-28T08:00:00Z"_s)}, // 09:00 CET
        {u"Morning"_s, utc(u"2026-03-29T07:00:00Z"_s)}, // 09:00 CEST
        {u"Night"_s, utc(u"2026-03-30T00:30:00Z"_s)},   // 02:30 CEST
        {u"Morning"_s, utc(u"2026-03-30T07:00:00Z"_s)},
    };
    EXPECT_EQ(fired, spring);

    // Autumn: 02:00-03:00 happens twice on 25 October; "Night" fires at the first 02:30 only.
    runner.calls.clear();
    clock.setWallClock(utc(u"2026-10-24T12:00:00Z"_s));
    scheduler.wake(); // the wall clock jumped: the missed firings are over a day old
    settle();
    runner.calls.clear();
    runUntilTime(utc(u"2026-10-26T12:00:00Z"_s));
    fired.clear();
    for (const auto& call : runner.calls)
        fired.emplace_back(call.task, call.scheduledFor);
    const std::vector<std::pair<QString, QDateTime>> autumn{
        {u"Night"_s, utc(u"2026-10-25T00:30:00Z"_s)},   // the first 02:30 (CEST)
        {u"Morning"_s, utc(u"2026-10-25T08:00:00Z"_s)}, // 09:00 CET
        {u"Night"_s, utc(u"2026-10-26T01:30:00Z"_s)},
        {u"Morning"_s, utc(u"2026-10-26T08:00:00Z"_s)},
    };
    EXPECT_EQ(fired, autumn);
}

TEST_F(SchedulerTest, CatchesUpOnceAfterASuspendAndAfterAClockJump) {
    const TimeZoneGuard zone("UTC");
    addTask(u"Hourly"_s, u"0 * * * *");
    attach();
    runUntilTime(utc(u"2026-03-27T12:30:00Z"_s));
    ASSERT_EQ(runner.calls.size(), 0U); // created at 12:00 exactly: nothing before it is due

    // Asleep from 12:30 to 15:30: 13:00, 14:00 and 15:00 were missed; 15:00 runs, once.
    clock.suspend(std::chrono::hours(3));
    settle();
    ASSERT_EQ(runner.calls.size(), 1U);
    EXPECT_EQ(runner.calls.at(0).scheduledFor, utc(u"2026-03-27T15:00:00Z"_s));
    EXPECT_EQ(runner.calls.at(0).startedAt, utc(u"2026-03-27T15:30:00Z"_s));

    // The clock is set forward by two hours: seen within the minute, 17:00 runs once.
    clock.setWallClock(utc(u"2026-03-27T17:40:00Z"_s));
    runUntilTime(utc(u"2026-03-27T17:41:00Z"_s));
    ASSERT_EQ(runner.calls.size(), 2U);
    EXPECT_EQ(runner.calls.at(1).scheduledFor, utc(u"2026-03-27T17:00:00Z"_s));

    // Set back by an hour: 17:00 is not run again when it comes round.
    clock.setWallClock(utc(u"2026-03-27T16:41:00Z"_s));
    runUntilTime(utc(u"2026-03-27T17:59:00Z"_s));
    EXPECT_EQ(runner.calls.size(), 2U);
    runUntilTime(utc(u"2026-03-27T18:01:00Z"_s));
    EXPECT_EQ(runner.calls.size(), 3U);

    QStringList statuses;
    for (const auto& run : history())
        statuses << TaskRun::toString(run.status);
    EXPECT_EQ(statuses, (QStringList{u"succeeded"_s, u"succeeded"_s, u"succeeded"_s}));
}

TEST_F(SchedulerTest, AFiringMissedByMoreThanADayIsRecordedSkipped) {
    const TimeZoneGuard zone("UTC");
    // Mondays at 09:00; 2026-03-27 is a Friday.
    const ScheduledTask task = addTask(u"Weekly"_s, u"0 9 * * MON");
    attach();
    runUntilTime(utc(u"2026-03-29T20:00:00Z"_s));
    // Asleep from Sunday evening to Wednesday 10:00: Monday 09:00 is two days old.
    clock.suspend(std::chrono::hours(62));
    settle();
    EXPECT_TRUE(runner.calls.empty());
    const QList<TaskRun> runs = history();
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs.at(0).taskID, task.id);
    EXPECT_EQ(runs.at(0).status, TaskRun::Status::skipped);
    EXPECT_EQ(runs.at(0).scheduledFor, utc(u"2026-03-30T09:00:00Z"_s));
    EXPECT_EQ(runs.at(0).error, Scheduler::missedReason());
    // Recorded once, however often the scheduler looks again.
    runUntilTime(utc(u"2026-04-01T12:00:00Z"_s));
    EXPECT_EQ(history().size(), 1);
}

TEST_F(SchedulerTest, PausedTasksNeverFireAndResumeWithoutCatchingUp) {
    const TimeZoneGuard zone("UTC");
    ScheduledTask task = addTask(u"Paused"_s, u"*/10 * * * *", false);
    attach();
    runUntilTime(utc(u"2026-03-27T15:05:00Z"_s));
    EXPECT_TRUE(runner.calls.empty());

    // Resumed at 15:05: 15:00 passed while paused and is not run; 15:10 is.
    task.enabled = true;
    StoredTasks stored = runTask(store.load()).schedules;
    stored.upsert(task, clock.now());
    runTask(store.saveTasks(stored));
    scheduler.wake();
    settle();
    EXPECT_TRUE(runner.calls.empty());
    runUntilTime(utc(u"2026-03-27T15:10:00Z"_s));
    ASSERT_EQ(runner.calls.size(), 1U);
    EXPECT_EQ(runner.calls.at(0).scheduledFor, utc(u"2026-03-27T15:10:00Z"_s));

    // Detached, nothing fires any more.
    scheduler.setAccount(std::nullopt);
    EXPECT_FALSE(clock.hasPendingWake());
    runUntilTime(utc(u"2026-03-27T16:00:00Z"_s));
    EXPECT_EQ(runner.calls.size(), 1U);
}

// Never finishes on its own: it waits for its stop.
class StuckRunner final : public TaskRunner {
public:
    QCoro::Task<Outcome> run(ScheduledTask, QDateTime, std::stop_token stop) override {
        ++started;
        while (!stop.stop_requested())
            co_await QCoro::sleepFor(std::chrono::milliseconds(5));
        co_return Outcome{.status = TaskRun::Status::failed, .error = u"stopped"_s};
    }
    int started = 0;
};

TEST(ScheduledRun, ARunPastItsTimeLimitIsStoppedAndFails) {
    TaskStore store(std::nullopt);
    StuckRunner runner;
    ManualSchedulerClock clock(utc(u"2026-03-27T12:00:00Z"_s));
    ScheduledRun scheduled(
        store, runner, nullptr, [&] { return clock.now(); }, std::chrono::milliseconds(50));
    const ScheduledTask task{.id = QUuid::createUuid(),
                             .name = u"Slow"_s,
                             .cron = CronExpression(u"0 9 * * *"),
                             .createdAt = clock.now()};
    const TaskRun queued = scheduled.queued(task, clock.now());
    const TaskRun finished = runTask(scheduled.perform(task, queued));
    EXPECT_EQ(runner.started, 1);
    EXPECT_EQ(finished.status, TaskRun::Status::failed);
    EXPECT_EQ(finished.error, u"The run took longer than 10 minutes and was stopped."_s);
    const QList<TaskRun> runs = runTask(store.load()).runs;
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs.at(0).id, queued.id);
    EXPECT_EQ(runs.at(0).status, TaskRun::Status::failed);
}

TEST(ChatTaskRunner, PreviewsKeepTheFirst200CharactersWhole) {
    EXPECT_EQ(ChatTaskRunner::preview(u"Short answer."_s), u"Short answer."_s);
    // Characters as a reader counts them: an accented letter made of two code points and an
    // emoji made of a surrogate pair each count once and are never cut in half.
    QString text;
    for (int i = 0; i < 199; ++i)
        text += u"e\u0301"_s;
    text += u"\U0001F600"_s;
    const QString exact = text;
    text += u"e\u0301 and more"_s;
    EXPECT_EQ(ChatTaskRunner::preview(text), exact);
    EXPECT_EQ(ChatTaskRunner::preview(exact), exact);

    const TimeZoneGuard tokyo("Asia/Tokyo");
    EXPECT_EQ(ChatTaskRunner::chatTitle(u"Digest"_s, utc(u"2026-03-27T00:30:00Z"_s)),
              u"Digest — 2026-03-27 09:30"_s);
}

} // namespace
} // namespace kestrolan
