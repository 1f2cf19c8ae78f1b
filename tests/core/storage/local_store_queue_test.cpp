#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "secret_service.h"
#include "storage/keychain_local_key_store.h"
#include "storage/local_store_queue.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <semaphore>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Kind = LocalPrivacyError::Kind;

namespace {

const QString origin = u"https://api.example.com"_s;

LocalAccountContext contextOf(const QUuid& account) {
    return LocalAccountContext::make(QUrl(origin), account);
}

template <class T>
std::optional<Kind> failureOf(QCoro::Task<T> task) {
    try {
        runTask(std::move(task));
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    return std::nullopt;
}

// Whether another open file description can take the lock right now.
bool lockIsFree(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return free;
}

qint64 valueOf(const EncryptedLocalStorage& storage, const QString& record) {
    const auto document = storage.readDocument(record);
    return document ? document->object().value(u"v"_s).toInteger() : -1;
}

} // namespace

TEST(LocalStoreQueue, RunsJobsInOrderOffTheCallingThreadAndCarriesResultsAndErrors) {
    LocalStoreQueue queue(u"org.kestrolan.mac.projects"_s, std::nullopt);
    QList<int> order;
    std::atomic<bool> onCaller = false;
    std::atomic<bool> sawStorage = false;
    QThread* const caller = QThread::currentThread();

    // Queued together, without waiting for one another.
    std::vector<QCoro::Task<int>> tasks;
    for (int i = 0; i < 20; ++i)
        tasks.push_back(queue.run([&, i](EncryptedLocalStorage* storage) {
            onCaller = onCaller || QThread::currentThread() == caller;
            sawStorage = sawStorage || storage != nullptr;
            order.append(i);
            return i * i;
        }));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(runTask(std::move(tasks[i])), i * i);
    QList<int> expected(20);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(onCaller);
    EXPECT_FALSE(sawStorage);

    EXPECT_EQ(failureOf(queue.run(
                  [](EncryptedLocalStorage*) { throw LocalPrivacyError(Kind::corrupt); })),
              Kind::corrupt);
    EXPECT_THROW(runTask(queue.run(
                     [](EncryptedLocalStorage*) -> QString { throw std::runtime_error("other"); })),
                 std::runtime_error);
    // The blocking form, from a thread that may block.
    int blockingResult = 0;
    std::thread worker(
        [&] { blockingResult = queue.runBlocking([](EncryptedLocalStorage*) { return 7; }); });
    worker.join();
    EXPECT_EQ(blockingResult, 7);
}

TEST(LocalStoreQueue, CloseWaitsForQueuedWorkAndThenRefusesMore) {
    LocalStoreQueue queue(u"org.kestrolan.mac.agents"_s, std::nullopt);
    std::binary_semaphore release(0);
    auto running = queue.run([&](EncryptedLocalStorage*) {
        release.acquire();
        return u"done"_s;
    });
    std::atomic<bool> queuedRan = false;
    auto queued = queue.run([&](EncryptedLocalStorage*) { queuedRan = true; });
    auto closing = queue.close();
    EXPECT_TRUE(queue.isClosed());
    EXPECT_FALSE(closing.isReady());

    bool refusedRan = false;
    EXPECT_EQ(failureOf(queue.run([&](EncryptedLocalStorage*) { refusedRan = true; })),
              Kind::unavailable);
    EXPECT_THROW(queue.runBlocking([](EncryptedLocalStorage*) { return 1; }), LocalPrivacyError);

    release.release();
    runTask(std::move(closing));
    EXPECT_TRUE(queuedRan);
    EXPECT_EQ(runTask(std::move(running)), u"done");
    runTask(std::move(queued));
    EXPECT_FALSE(refusedRan);
}

TEST(LocalStoreQueue, JobsOfOneAccountNeverOverlapAcrossQueues) {
    QTemporaryDir temporary;
    ASSERT_TRUE(temporary.isValid());
    const auto keys = std::make_shared<MemoryLocalKeyStore>();
    const EncryptedLocalStorage storage(temporary.path(), contextOf(QUuid::createUuid()), keys);
    LocalStoreQueue projects(u"org.kestrolan.mac.projects"_s, storage);
    LocalStoreQueue agents(u"org.kestrolan.mac.agents"_s, storage);

    // Inside a job the account's lock file is held: no other open file can take it.
    const bool freeInside = runTask(projects.run(
        [](EncryptedLocalStorage* locked) { return lockIsFree(locked->lockFilePath()); }));
    EXPECT_FALSE(freeInside);
    EXPECT_TRUE(lockIsFree(storage.lockFilePath()));
    struct stat status {};
    ASSERT_EQ(::lstat(QFile::encodeName(storage.lockFilePath()).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_size, 0);

    // Read-modify-write from two queues at once loses nothing.
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    const auto increment = [&](EncryptedLocalStorage* locked) {
        overlapped = overlapped || ++inside > 1;
        const auto value = locked->read(u"counter"_s);
        locked->write(QByteArray::number(value ? value->toInt() + 1 : 1), u"counter"_s);
        --inside;
    };
    std::vector<QCoro::Task<void>> tasks;
    for (int i = 0; i < 30; ++i) {
        tasks.push_back(projects.run(increment));
        tasks.push_back(agents.run(increment));
    }
    for (auto& task : tasks)
        runTask(std::move(task));
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(storage.read(u"counter"_s), "60");
}

class LocalStoreProcessesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
        ASSERT_TRUE(temporary.isValid());
    }

    QStringList workerArguments(const QString& mode) const {
        return {mode, temporary.path(), origin, account.toString(QUuid::WithoutBraces)};
    }

    QTemporaryDir temporary;
    QUuid account = QUuid::createUuid();
    EncryptedLocalStorage storage{temporary.path(), contextOf(account),
                                  std::make_shared<KeychainLocalKeyStore>()};
};

TEST_F(LocalStoreProcessesTest, TwoProcessesSharingAnAccountLoseNoUpdate) {
    constexpr int times = 25;
    std::array<QProcess, 2> workers;
    for (int i = 0; i < 2; ++i) {
        workers[i].setProcessChannelMode(QProcess::ForwardedErrorChannel);
        workers[i].start(QStringLiteral(KESTROLAN_STORAGE_WORKER),
                         workerArguments(u"count"_s) << u"w%1"_s.arg(i) << QString::number(times));
    }
    for (auto& worker : workers) {
        ASSERT_TRUE(worker.waitForFinished(60'000));
        EXPECT_EQ(worker.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(worker.exitCode(), 0);
    }
    // Both used the one key the first of them made, and every increment of both survived.
    EXPECT_EQ(valueOf(storage, u"counter"_s), 2 * times);
    EXPECT_EQ(valueOf(storage, u"count-w0"_s), times);
    EXPECT_EQ(valueOf(storage, u"count-w1"_s), times);
}

TEST_F(LocalStoreProcessesTest, WritersKilledAtAnyMomentLeaveEveryRecordWholeAndPresent) {
    // A kill loses no written page, so the disk's sync speed is beside the point here: files in
    // memory keep 200 kills quick. Four writers, one account each, run at once for the same
    // reason.
    QTemporaryDir inMemory(u"/dev/shm/kestrolan-storage-XXXXXX"_s);
    const QString root = inMemory.isValid() ? inMemory.path() : temporary.path();
    constexpr int writerCount = 4;
    constexpr int rounds = 50;
    const QStringList records = {u"projects"_s, u"agents"_s, u"tasks"_s};

    struct Account {
        QUuid id;
        EncryptedLocalStorage storage;
        // What the last acknowledged write left in each record.
        QHash<QString, qint64> acknowledged;
    };
    std::vector<Account> accounts;
    for (int i = 0; i < writerCount; ++i) {
        const QUuid id = QUuid::createUuid();
        Account created{id, EncryptedLocalStorage(root, contextOf(id), storage.keys()), {}};
        for (const QString& record : records) {
            created.storage.writeDocument(QJsonDocument(QJsonObject{{u"v"_s, 0}}), record);
            created.acknowledged.insert(record, 0);
        }
        accounts.push_back(std::move(created));
    }

    // Kills inside a write leave its temporary file behind (never counted as a record).
    const auto interruptedWrites = [&] {
        int count = 0;
        for (const Account& written : accounts)
            count += int(QDir(written.storage.accountDirectory())
                             .entryList({u".*.tmp"_s}, QDir::Files | QDir::Hidden)
                             .size());
        return count;
    };
    auto* random = QRandomGenerator::global();
    int killedAfterRewrites = 0;
    // A write is short: on a slow (sanitized, loaded) build the random kills may need more
    // rounds before one lands inside it.
    for (int round = 0; round < rounds || (interruptedWrites() == 0 && round < 4 * rounds);
         ++round) {
        SCOPED_TRACE(round);
        std::array<QProcess, writerCount> writers;
        for (int i = 0; i < writerCount; ++i) {
            writers[i].setProcessChannelMode(QProcess::ForwardedErrorChannel);
            writers[i].start(QStringLiteral(KESTROLAN_STORAGE_WORKER),
                             QStringList{u"rewrite"_s, root, origin,
                                         accounts[i].id.toString(QUuid::WithoutBraces)} +
                                 records);
        }
        // Each is killed at a random point of its write cycle, some right after the first
        // write went through, others several writes later.
        for (auto& writer : writers) {
            ASSERT_TRUE(writer.waitForReadyRead(30'000)) << "a writer never wrote";
            std::this_thread::sleep_for(std::chrono::microseconds(random->bounded(0, 6'000)));
            ASSERT_EQ(::kill(pid_t(writer.processId()), SIGKILL), 0);
        }
        for (int i = 0; i < writerCount; ++i) {
            ASSERT_TRUE(writers[i].waitForFinished(30'000));
            ASSERT_EQ(writers[i].exitStatus(), QProcess::CrashExit);
            Account& written = accounts[i];
            const QStringList lines = QString::fromUtf8(writers[i].readAllStandardOutput())
                                          .split(u'\n', Qt::SkipEmptyParts);
            killedAfterRewrites += lines.size() > 1;
            for (const QString& line : lines) {
                const QStringList fields = line.split(u' ');
                ASSERT_EQ(fields.size(), 2) << line.toStdString();
                written.acknowledged[fields.at(0)] = fields.at(1).toLongLong();
            }
            for (const QString& record : records) {
                qint64 value = -1;
                try {
                    value = valueOf(written.storage, record);
                } catch (const LocalPrivacyError& error) {
                    FAIL() << record.toStdString() << ": " << error.what();
                }
                // The write under way when the kill came either landed whole or not at all.
                const qint64 previous = written.acknowledged.value(record);
                EXPECT_TRUE(value == previous || value == previous + 1)
                    << record.toStdString() << " holds " << value << " after " << previous;
                written.acknowledged[record] = value;
            }
        }
    }
    // The kills did land among rewrites, not only just after start-up, and some inside a write.
    EXPECT_GT(killedAfterRewrites, 20);
    EXPECT_GT(interruptedWrites(), 0);
}
