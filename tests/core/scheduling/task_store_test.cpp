#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/task_store.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

using test::runTask;
using Kind = LocalPrivacyError::Kind;

QDateTime at(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds, QTimeZone::utc());
}

ScheduledTask makeTask(const QString& name) {
    return ScheduledTask{.id = QUuid::createUuid(),
                         .name = name,
                         .prompt = u"Say hello."_s,
                         .model = u"kestrolan/echo"_s,
                         .cron = CronExpression(u"0 9 * * *"),
                         .createdAt = at(1'000)};
}

TaskRun makeRun(const QUuid& taskID, qint64 started) {
    return TaskRun{.id = QUuid::createUuid(),
                   .taskID = taskID,
                   .scheduledFor = at(started),
                   .startedAt = at(started),
                   .finishedAt = at(started + 1),
                   .status = TaskRun::Status::succeeded,
                   .chatID = QUuid::createUuid(),
                   .preview = u"Hello"_s};
}

Kind failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "no LocalPrivacyError";
    return Kind::invalidContext;
}

QCoro::Task<void> both(QCoro::Task<void> first, QCoro::Task<void> second) {
    co_await first;
    co_await second;
}

std::function<bool(QList<TaskRun>&)> appending(TaskRun run) {
    return [run](QList<TaskRun>& runs) {
        runs.append(run);
        return true;
    };
}

std::function<bool(StoredTasks&)> claiming(QUuid taskID, QDateTime firing) {
    return [taskID, firing](StoredTasks& stored) { return stored.claim(taskID, firing, firing); };
}

// Appends 25 runs, one edit at a time.
QCoro::Task<void> appendRuns(TaskStore* store, QUuid taskID, int offset) {
    for (int i = 0; i < 25; ++i)
        co_await store->updateRuns(appending(makeRun(taskID, offset + i)));
}

QCoro::Task<void> claim(TaskStore* store, QUuid taskID, QDateTime firing, bool* won) {
    *won = co_await store->updateTasks(claiming(taskID, firing));
}

class TaskStoreOnDisk : public ::testing::Test {
protected:
    EncryptedLocalStorage storage() const {
        return EncryptedLocalStorage(
            m_root.path(),
            LocalAccountContext::make(QUrl(u"https://kestrolan.example"_s), m_account), m_keys);
    }

    QTemporaryDir m_root;
    QUuid m_account = QUuid::createUuid();
    std::shared_ptr<test::MemoryLocalKeyStore> m_keys =
        std::make_shared<test::MemoryLocalKeyStore>();
};

TEST_F(TaskStoreOnDisk, KeepsTasksAndHistoryAcrossStoresButNotPreviews) {
    {
        TaskStore empty(storage());
        const TaskStoreSnapshot snapshot = runTask(empty.load());
        EXPECT_EQ(snapshot, TaskStoreSnapshot());
    }
    StoredTasks stored;
    const ScheduledTask task = makeTask(u"Digest"_s);
    stored.upsert(task, at(2'000));
    const TaskRun run = makeRun(task.id, 3'000);
    {
        TaskStore store(storage());
        runTask(store.saveTasks(stored));
        runTask(store.saveRuns({run}));
        runTask(store.close());
    }
    const QDir account(storage().accountDirectory());
    EXPECT_TRUE(account.exists(u"scheduled-tasks.krenc"_s));
    EXPECT_TRUE(account.exists(u"task-runs.krenc"_s));

    TaskStore reopened(storage());
    const TaskStoreSnapshot snapshot = runTask(reopened.load());
    EXPECT_EQ(snapshot.schedules, stored);
    ASSERT_EQ(snapshot.runs.size(), 1);
    TaskRun expected = run;
    expected.preview.reset();
    EXPECT_EQ(snapshot.runs.first(), expected);

    // Saving trims: 60 finished runs come back as 50.
    QList<TaskRun> many;
    for (int i = 0; i < 60; ++i)
        many.append(makeRun(task.id, 10'000 + i));
    runTask(reopened.saveRuns(many));
    EXPECT_EQ(runTask(reopened.load()).runs.size(), 50);
}

TEST_F(TaskStoreOnDisk, ClosedStoresRefuseAndUndecodableRecordsAreCorrupt) {
    TaskStore store(storage());
    runTask(store.close());
    EXPECT_TRUE(store.isClosed());
    EXPECT_EQ(failureOf([&] { runTask(store.load()); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { runTask(store.saveTasks({})); }), Kind::unavailable);

    // Sealed properly, but not a task document.
    storage().writeDocument(QJsonDocument(QJsonObject{{u"tasks"_s, u"none"_s}}),
                            u"scheduled-tasks"_s);
    storage().writeDocument(QJsonDocument(QJsonArray{QJsonObject{{u"id"_s, 1}}}), u"task-runs"_s);
    TaskStore damaged(storage());
    EXPECT_EQ(failureOf([&] { runTask(damaged.load()); }), Kind::corrupt);
    // An edit of a corrupt document writes nothing.
    EXPECT_EQ(failureOf([&] { runTask(damaged.updateTasks([](StoredTasks&) { return true; })); }),
              Kind::corrupt);
    EXPECT_EQ(storage().readDocument(u"scheduled-tasks"_s)->object().value(u"tasks"_s), u"none"_s);
}

TEST_F(TaskStoreOnDisk, TwoStoresOnOneAccountLoseNoEditAndClaimAFiringOnce) {
    TaskStore first(storage());
    TaskStore second(storage());
    const ScheduledTask task = makeTask(u"Shared"_s);
    runTask(first.updateTasks([&](StoredTasks& stored) {
        stored.upsert(task, at(1'000));
        return true;
    }));

    // Each store appends 25 runs while the other does the same.
    runTask(both(appendRuns(&first, task.id, 100), appendRuns(&second, task.id, 200)));
    EXPECT_EQ(runTask(first.load()).runs.size(), 50);

    // Both try to claim the same firing at the same time: exactly one wins.
    const QDateTime firing = at(86'400);
    bool firstWon = false;
    bool secondWon = false;
    runTask(both(claim(&first, task.id, firing, &firstWon),
                 claim(&second, task.id, firing, &secondWon)));
    EXPECT_NE(firstWon, secondWon);
    EXPECT_EQ(runTask(second.load()).schedules.lastScheduledFire.at(task.id), firing);
}

TEST_F(TaskStoreOnDisk, LegacyFilesAreImportedSealedOrRefusedWhole) {
    QTemporaryDir legacy;
    StoredTasks stored;
    const ScheduledTask task = makeTask(u"From before"_s);
    stored.upsert(task, at(5'000));
    const TaskRun run = makeRun(task.id, 6'000);
    const auto writeFile = [&](const QString& name, const QByteArray& bytes) {
        QFile file(legacy.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    };
    writeFile(u"scheduled-tasks.json"_s, QJsonDocument(stored.toJson()).toJson());
    writeFile(u"task-runs.json"_s, "[{\"id\": \"broken\"}]");

    TaskStore store(storage());
    EXPECT_EQ(failureOf([&] { runTask(store.importLegacy(legacy.path())); }), Kind::invalidRecord);
    EXPECT_EQ(runTask(store.load()), TaskStoreSnapshot());

    writeFile(u"task-runs.json"_s, QJsonDocument(QJsonArray{run.toJson()}).toJson());
    runTask(store.importLegacy(legacy.path()));
    const TaskStoreSnapshot imported = runTask(store.load());
    EXPECT_EQ(imported.schedules.tasks, QList<ScheduledTask>{task});
    EXPECT_EQ(imported.schedules.lastScheduledFire.at(task.id), at(5'000));
    ASSERT_EQ(imported.runs.size(), 1);
    EXPECT_EQ(imported.runs.first().id, run.id);
    // Importing again adds nothing twice.
    runTask(store.importLegacy(legacy.path()));
    EXPECT_EQ(runTask(store.load()), imported);
}

TEST(TaskStoreInMemory, WorksWithoutAnAccountAndForgets) {
    TaskStore store(std::nullopt);
    EXPECT_FALSE(store.storage());
    StoredTasks stored;
    const ScheduledTask task = makeTask(u"Transient"_s);
    stored.upsert(task, at(1));
    runTask(store.saveTasks(stored));
    runTask(store.saveRuns({makeRun(task.id, 10)}));
    const TaskStoreSnapshot snapshot = runTask(store.load());
    EXPECT_EQ(snapshot.schedules, stored);
    ASSERT_EQ(snapshot.runs.size(), 1);
    EXPECT_EQ(snapshot.runs.first().preview, std::nullopt);

    runTask(store.forgetLocalData());
    EXPECT_TRUE(store.isClosed());
    EXPECT_EQ(failureOf([&] { runTask(store.load()); }), Kind::unavailable);
}

} // namespace
} // namespace kestrolan
