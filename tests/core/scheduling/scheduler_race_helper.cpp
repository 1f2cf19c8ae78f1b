// One of several scheduler processes sharing an account directory. Usage:
//   scheduler-race-helper ROOT ACCOUNT START END
// with the data key in hex in KESTROLAN_TEST_KEY. Its clock runs from START to END (ISO 8601)
// as fast as the scheduler goes; every run succeeds at once. Prints the number of runs it made.

#include "fixed_local_key_store.h"
#include "manual_scheduler_clock.h"
#include "run_task.h"
#include "scheduling/scheduler.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"

#include <QCoreApplication>
#include <QTextStream>
#include <date/tz.h>

using namespace kestrolan;

namespace {

class InstantRunner final : public TaskRunner {
public:
    QCoro::Task<Outcome> run(ScheduledTask, QDateTime, std::stop_token) override {
        ++runs;
        co_return Outcome{.status = TaskRun::Status::succeeded, .chatID = QUuid::createUuid()};
    }
    int runs = 0;
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 5)
        return 2;
    const auto keys = std::make_shared<test::FixedLocalKeyStore>(
        QByteArray::fromHex(qgetenv("KESTROLAN_TEST_KEY")));
    const EncryptedLocalStorage storage(
        arguments.at(1),
        LocalAccountContext::make(QUrl(QStringLiteral("https://race.example")),
                                  QUuid::fromString(arguments.at(2))),
        keys);
    const QDateTime end = QDateTime::fromString(arguments.at(4), Qt::ISODate);

    TaskStore store(storage);
    InstantRunner runner;
    test::ManualSchedulerClock clock(QDateTime::fromString(arguments.at(3), Qt::ISODate));
    Scheduler scheduler(clock, date::locate_zone("UTC"));
    scheduler.setAccount(Scheduler::Attachment{&store, &runner, nullptr});
    const auto settle = [&] { test::runUntil([&] { return scheduler.isIdle(); }); };
    settle();
    while (clock.runToDeadline(end))
        settle();
    scheduler.setAccount(std::nullopt);
    QTextStream(stdout) << runner.runs << Qt::endl;
    return 0;
}
