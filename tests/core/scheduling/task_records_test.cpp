#include "error.h"
#include "qstring_printer.h"
#include "scheduling/stored_tasks.h"
#include "scheduling/task_run.h"
#include "support/json_reader.h"

#include <QJsonArray>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, QTimeZone::utc());
}

ScheduledTask sampleTask() {
    return ScheduledTask{
        .id = QUuid::createUuid(),
        .name = QStringLiteral("Morning digest"),
        .prompt = QStringLiteral("Summarise the news.\nKeep it short."),
        .agentID = QUuid::createUuid(),
        .model = QStringLiteral("kestrolan/echo"),
        .projectID = QUuid::createUuid(),
        .cron = CronExpression(u"0 9 * * MON-FRI"),
        .enabled = false,
        .notify = true,
        .createdAt = QDateTime::fromMSecsSinceEpoch(1'760'000'000'123, QTimeZone::utc()),
    };
}

TaskRun finishedRun(const QUuid& taskID, qint64 started) {
    return TaskRun{.id = QUuid::createUuid(),
                   .taskID = taskID,
                   .scheduledFor = at(started),
                   .startedAt = at(started),
                   .finishedAt = at(started + 5),
                   .status = TaskRun::Status::succeeded};
}

TEST(TaskRecords, WrittenAndReadBackKeepEveryFieldButThePreview) {
    StoredTasks stored;
    const ScheduledTask full = sampleTask();
    ScheduledTask bare = sampleTask();
    bare.id = QUuid::createUuid();
    bare.agentID.reset();
    bare.model.reset();
    bare.projectID.reset();
    stored.tasks = {full, bare};
    stored.lastScheduledFire[full.id] = at(1'760'000'400);
    stored.claimedRuns.append({full.id, at(1'760'000'400), at(1'760'000'401)});
    EXPECT_EQ(StoredTasks::fromJson(stored.toJson()), stored);
    // Absent optionals are left out rather than written as null.
    EXPECT_FALSE(bare.toJson().contains(u"agentID"));

    TaskRun run{.id = QUuid::createUuid(),
                .taskID = full.id,
                .scheduledFor = at(1'760'000'400),
                .startedAt = QDateTime::fromMSecsSinceEpoch(1'760'000'400'250, QTimeZone::utc()),
                .finishedAt = at(1'760'000'460),
                .status = TaskRun::Status::failed,
                .chatID = QUuid::createUuid(),
                .preview = QStringLiteral("Top stories"),
                .error = QStringLiteral("Insufficient credit.")};
    const QJsonObject json = run.toJson();
    EXPECT_EQ(json.keys(),
              (QStringList{u"chatID"_s, u"error"_s, u"finishedAt"_s, u"id"_s, u"scheduledFor"_s,
                           u"startedAt"_s, u"status"_s, u"taskID"_s}));
    EXPECT_EQ(json.value(u"status").toString(), u"failed");
    TaskRun expected = run;
    expected.preview.reset();
    EXPECT_EQ(TaskRun::fromJson(json), expected);
}

TEST(TaskRecords, DocumentsThatAreNotTasksOrRunsAreRefused) {
    const QJsonObject task = sampleTask().toJson();
    const auto refuses = [](const QJsonObject& object) {
        try {
            ScheduledTask::fromJson(object);
        } catch (const JsonReader::FieldError&) {
            return true;
        } catch (const Error&) {
            return true; // a schedule that does not parse
        }
        return false;
    };
    EXPECT_FALSE(refuses(task));
    for (const auto& [key, value] : std::initializer_list<std::pair<QString, QJsonValue>>{
             {u"id"_s, u"not-a-uuid"_s},
             {u"cron"_s, u"0 9 * *"_s},
             {u"enabled"_s, u"yes"_s},
             {u"createdAt"_s, u"2026-01-01T09:00:00"_s}, // no zone: ambiguous
             {u"createdAt"_s, u"yesterday"_s},
         }) {
        QJsonObject broken = task;
        broken.insert(key, value);
        EXPECT_TRUE(refuses(broken)) << key.toStdString();
    }
    QJsonObject run = finishedRun(QUuid::createUuid(), 100).toJson();
    run.insert(u"status"_s, u"done"_s);
    EXPECT_THROW(TaskRun::fromJson(run), JsonReader::FieldError);
}

TEST(TaskRecords, TrimKeepsPendingRunsFirstThenTheNewestFiftyPerTask) {
    const QUuid task = QUuid::createUuid();
    const QUuid other = QUuid::createUuid();
    QList<TaskRun> runs;
    for (int i = 0; i < 60; ++i)
        runs.append(finishedRun(task, 1'000 + i * 60));
    // Older than every finished run, and still running: kept, ahead of them.
    TaskRun running = finishedRun(task, 10);
    running.status = TaskRun::Status::running;
    running.finishedAt.reset();
    runs.append(running);
    for (int i = 0; i < 3; ++i)
        runs.append(finishedRun(other, 500 + i));

    const QList<TaskRun> kept = TaskRun::trim(runs);
    QList<TaskRun> ofTask;
    for (const auto& run : kept) {
        if (run.taskID == task)
            ofTask.append(run);
    }
    ASSERT_EQ(ofTask.size(), 50);
    EXPECT_EQ(ofTask.first().id, running.id);
    // The 49 newest finished runs follow, newest first: the 11 oldest are gone.
    for (int i = 1; i < 50; ++i)
        EXPECT_EQ(ofTask.at(i).startedAt, at(1'000 + (60 - i) * 60)) << i;
    EXPECT_EQ(kept.size(), 53); // another task's runs are counted on their own
    EXPECT_EQ(kept.first().id, running.id);

    // Equal start times are ordered by id text, so every writer keeps the same runs.
    TaskRun a = finishedRun(task, 5'000);
    TaskRun b = a;
    a.id = QUuid(u"{aaaaaaaa-0000-0000-0000-000000000000}");
    b.id = QUuid(u"{0aaaaaaa-0000-0000-0000-000000000000}");
    const QList<TaskRun> tied = TaskRun::trim({a, b});
    EXPECT_EQ(tied.at(0).id, b.id);
    EXPECT_EQ(tied.at(1).id, a.id);
}

TEST(TaskRecords, AFiringIsClaimedOnceAndStaleClaimsAreDropped) {
    StoredTasks stored;
    const ScheduledTask task = sampleTask();
    stored.upsert(task, at(1'000));
    const QDateTime firing = at(86'400);
    EXPECT_TRUE(stored.claim(task.id, firing, at(86'401)));
    EXPECT_FALSE(stored.claim(task.id, firing, at(86'402)));
    EXPECT_EQ(stored.lastScheduledFire.at(task.id), firing);
    // Eight days on, the old claim is gone from the document.
    EXPECT_TRUE(stored.claim(task.id, at(9 * 86'400), at(9 * 86'400 + 1)));
    ASSERT_EQ(stored.claimedRuns.size(), 1);
    EXPECT_EQ(stored.claimedRuns.first().scheduledFor, at(9 * 86'400));

    // Resuming a paused task or changing its schedule restarts its count at that moment;
    // renaming it does not.
    ScheduledTask edited = task; // task is paused
    edited.enabled = true;
    stored.upsert(edited, at(20 * 86'400));
    EXPECT_EQ(stored.lastScheduledFire.at(task.id), at(20 * 86'400));
    edited.name = QStringLiteral("Renamed");
    stored.upsert(edited, at(30 * 86'400));
    EXPECT_EQ(stored.lastScheduledFire.at(task.id), at(20 * 86'400));
    edited.cron = CronExpression(u"30 9 * * *");
    stored.upsert(edited, at(31 * 86'400));
    EXPECT_EQ(stored.lastScheduledFire.at(task.id), at(31 * 86'400));

    EXPECT_TRUE(stored.remove(task.id));
    EXPECT_TRUE(stored.tasks.isEmpty());
    EXPECT_TRUE(stored.lastScheduledFire.empty());
    EXPECT_TRUE(stored.claimedRuns.isEmpty());
    EXPECT_FALSE(stored.remove(task.id));
}

} // namespace
} // namespace kestrolan
