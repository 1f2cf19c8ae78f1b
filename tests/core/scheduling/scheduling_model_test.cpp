#include "manual_scheduler_clock.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/scheduler.h"
#include "scheduling/scheduling_model.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"

#include <QSignalSpy>
#include <date/tz.h>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

using test::ManualSchedulerClock;
using test::runTask;
using test::runUntil;

class PreviewRunner final : public TaskRunner {
public:
    QCoro::Task<Outcome> run(ScheduledTask task, QDateTime, std::stop_token) override {
        co_return Outcome{.status = TaskRun::Status::succeeded,
                          .chatID = QUuid::createUuid(),
                          .preview = u"Answer to "_s + task.name};
    }
};

TEST(SchedulingModel, EditsTasksThroughDraftsAndKeepsPreviewsOfThisSession) {
    ManualSchedulerClock clock(QDateTime::fromString(u"2026-05-04T08:00:00Z"_s, Qt::ISODate));
    TaskStore store(std::nullopt);
    PreviewRunner runner;
    Scheduler scheduler(clock, date::locate_zone("UTC"));
    scheduler.setAccount(Scheduler::Attachment{&store, &runner, nullptr});
    SchedulingModel model([&] { return clock.now(); });
    model.setAccount(&store, &scheduler);
    QSignalSpy changed(&model, &SchedulingModel::changed);
    const QList<CatalogModel> catalog{CatalogModel{.id = u"kestrolan/echo"_s, .available = true}};

    TaskDraft draft = model.newDraft(u"kestrolan/echo"_s);
    draft.name = u"   "_s;
    draft.prompt = u"Hi"_s;
    const auto refused = runTask(model.save(draft, {}, catalog));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->field(), EditorValidationError::Field::name);
    EXPECT_TRUE(runTask(store.load()).schedules.tasks.isEmpty());

    draft.name = u"Résumé"_s;
    draft.cadence = TaskDraft::Cadence::hourly;
    draft.minute = 0;
    EXPECT_EQ(runTask(model.save(draft, {}, catalog)), std::nullopt);
    ASSERT_EQ(model.tasks().size(), 1);
    EXPECT_EQ(model.tasks().first().cron.expression(), u"0 * * * *"_s);
    EXPECT_GT(changed.size(), 0);
    model.setQuery(u"resume"_s);
    EXPECT_EQ(model.visibleTasks().size(), 1);
    model.setFilter(TaskFilter::paused);
    EXPECT_TRUE(model.visibleTasks().isEmpty());

    // The scheduler runs it at 09:00; the model shows the run with its preview, which the
    // store never keeps, also after a reload. The clock moves only once the scheduler has
    // looked at the new task.
    runUntil([&] { return scheduler.isIdle(); });
    while (clock.runToDeadline(QDateTime::fromString(u"2026-05-04T09:00:00Z"_s, Qt::ISODate)))
        runUntil([&] { return scheduler.isIdle(); });
    runTask(model.reload());
    const QList<TaskRun> runs = model.runs(draft.id);
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs.first().status, TaskRun::Status::succeeded);
    EXPECT_EQ(runs.first().preview, u"Answer to Résumé"_s);
    EXPECT_EQ(runTask(store.load()).runs.first().preview, std::nullopt);

    runTask(model.setEnabled(draft.id, false));
    EXPECT_EQ(model.visibleTasks().size(), 1);
    EXPECT_FALSE(model.draft(draft.id)->enabled);
    runTask(model.remove(draft.id));
    EXPECT_TRUE(model.tasks().isEmpty());

    // Detached, the model holds nothing and edits go nowhere.
    scheduler.setAccount(std::nullopt);
    model.setAccount(nullptr, nullptr);
    EXPECT_TRUE(model.runs(draft.id).isEmpty());
    runTask(model.save(draft, {}, catalog));
    EXPECT_TRUE(runTask(store.load()).schedules.tasks.isEmpty());
}

TEST(SchedulingModel, StorageFailuresBecomeTheErrorText) {
    TaskStore store(std::nullopt);
    runTask(store.close());
    SchedulingModel model;
    model.setAccount(&store, nullptr);
    runUntil([&] { return model.errorMessage().has_value(); });
    EXPECT_EQ(model.errorMessage(),
              u"Local encrypted storage is unavailable. Check folder and Keychain access."_s);
}

} // namespace
} // namespace kestrolan
