#include "fixed_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/task_store.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <map>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

TEST(SchedulerProcesses, TwoSchedulersOnOneAccountRunEachFiringOnce) {
    QTemporaryDir root;
    QByteArray key(32, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(key.data()), 8);
    const QUuid account = QUuid::createUuid();
    const EncryptedLocalStorage storage(
        root.path(), LocalAccountContext::make(QUrl(u"https://race.example"_s), account),
        std::make_shared<test::FixedLocalKeyStore>(key));
    const QDateTime start = QDateTime::fromString(u"2026-01-05T10:00:00Z"_s, Qt::ISODate);
    const QDateTime end = start.addSecs(2 * 3600);
    {
        TaskStore store(storage);
        StoredTasks stored;
        stored.upsert(ScheduledTask{.id = QUuid::createUuid(),
                                    .name = u"Every five minutes"_s,
                                    .prompt = u"Go."_s,
                                    .model = u"kestrolan/echo"_s,
                                    .cron = CronExpression(u"*/5 * * * *"),
                                    .createdAt = start},
                      start);
        test::runTask(store.saveTasks(stored));
    }

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"KESTROLAN_TEST_KEY"_s, QString::fromLatin1(key.toHex()));
    // Under the sanitizers a helper that exits while libcrypto's per-thread state is still held
    // by a pool thread is reported as leaking; the in-process tests check the same code for leaks.
    environment.insert(u"ASAN_OPTIONS"_s, u"detect_leaks=0"_s);
    std::vector<std::unique_ptr<QProcess>> schedulers;
    for (int i = 0; i < 2; ++i) {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment);
        process->start(QStringLiteral(KESTROLAN_SCHEDULER_RACE_HELPER),
                       {root.path(), account.toString(QUuid::WithoutBraces),
                        start.toString(Qt::ISODate), end.toString(Qt::ISODate)});
        schedulers.push_back(std::move(process));
    }
    int runsMade = 0;
    for (const auto& process : schedulers) {
        ASSERT_TRUE(process->waitForFinished(90'000));
        ASSERT_EQ(process->exitStatus(), QProcess::NormalExit);
        ASSERT_EQ(process->exitCode(), 0) << process->readAllStandardError().toStdString();
        runsMade += process->readAllStandardOutput().trimmed().toInt();
    }

    TaskStore store(storage);
    const QList<TaskRun> runs = test::runTask(store.load()).runs;
    std::map<QDateTime, int> perFiring;
    for (const auto& run : runs) {
        ++perFiring[run.scheduledFor];
        EXPECT_EQ(run.status, TaskRun::Status::succeeded);
    }
    // 10:05, 10:10, ... 12:00: 24 firings, each run by one process only.
    EXPECT_EQ(runsMade, 24);
    ASSERT_EQ(perFiring.size(), 24U);
    EXPECT_EQ(perFiring.begin()->first, start.addSecs(300));
    EXPECT_EQ(perFiring.rbegin()->first, end);
    for (const auto& [firing, count] : perFiring)
        EXPECT_EQ(count, 1) << firing.toString(Qt::ISODate).toStdString();
}

} // namespace
} // namespace kestrolan
