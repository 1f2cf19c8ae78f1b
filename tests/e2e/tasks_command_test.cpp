#include "account/keychain_token_store.h"
#include "cli_process.h"
#include "dev_service.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/scheduler.h"
#include "scheduling/task_json.h"
#include "scheduling/task_store.h"
#include "secret_service.h"
#include "service/api_client.h"
#include "storage/keychain_local_key_store.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

// Scheduled tasks from the terminal against the real development service: a task's run asks the
// service, saves the answer as a chat on the account and pays for it; `kestrolan-cli scheduler`
// runs a due task on its own; zero data retention stops every run before anything is sent.
namespace {

const QString echo = QStringLiteral("kestrolan/echo");

class TasksEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
        const auto login = signInWithCli(service.baseURL());
        ASSERT_EQ(login.exitCode, 0) << login.err.toStdString();
    }

    CliRun cli(const QStringList& arguments) const { return runCli(service.baseURL(), arguments); }

    // Adds a task answered by the echo model and returns its id.
    QString addTask(const QString& name, const QString& prompt) const {
        const auto added =
            cli({QStringLiteral("tasks"), QStringLiteral("add"), QStringLiteral("--name"), name,
                 QStringLiteral("--prompt"), prompt, QStringLiteral("--cron"),
                 QStringLiteral("0 9 * * *"), QStringLiteral("--model"), echo});
        EXPECT_EQ(added.exitCode, 0) << added.err.toStdString();
        return added.out.trimmed();
    }

    QJsonArray runsOf(const QString& id) const {
        const auto runs =
            cli({QStringLiteral("tasks"), QStringLiteral("runs"), id, QStringLiteral("--json")});
        EXPECT_EQ(runs.exitCode, 0) << runs.err.toStdString();
        return QJsonDocument::fromJson(runs.out.toUtf8()).array();
    }

    QJsonArray savedChats() const {
        const auto chats =
            cli({QStringLiteral("chats"), QStringLiteral("list"), QStringLiteral("--json")});
        EXPECT_EQ(chats.exitCode, 0) << chats.err.toStdString();
        return QJsonDocument::fromJson(chats.out.toUtf8()).array();
    }

    // The chat charges in the service's ledger, in millionths.
    QList<qint64> ledgerCharges() const {
        const auto account =
            QJsonDocument::fromJson(service.admin("GET", QStringLiteral("/admin/account")))
                .object();
        QList<qint64> charges;
        for (const auto& entry : account.value(u"ledger").toArray()) {
            const auto object = entry.toObject();
            if (object.value(u"kind").toString() == u"charge") {
                EXPECT_EQ(object.value(u"model").toString(), echo);
                charges.append(std::abs(object.value(u"amount_millionths").toInteger()));
            }
        }
        return charges;
    }

    // The account's task store, opened here as the app would open it.
    std::unique_ptr<TaskStore> openStore() const {
        const Configuration configuration(service.baseURL());
        APIClient client(configuration, KeychainTokenStore::forApp(configuration.origin()));
        const Account account = runTask(client.account());
        return std::make_unique<TaskStore>(EncryptedLocalStorage(
            EncryptedLocalStorage::defaultRoot(),
            LocalAccountContext::make(configuration.origin(), account.id.value()),
            std::make_shared<KeychainLocalKeyStore>()));
    }

    DevService service;
};

std::function<bool(StoredTasks&)> handledUntil(QUuid taskID, QDateTime when) {
    return [taskID, when](StoredTasks& stored) {
        stored.lastScheduledFire[taskID] = when;
        return true;
    };
}

TEST_F(TasksEndToEnd, ARunIsSavedAsAChatAndCharged) {
    const QString id = addTask(QStringLiteral("Daily digest"), QStringLiteral("Hello from a task"));
    const auto listed = cli({QStringLiteral("tasks"), QStringLiteral("list")});
    EXPECT_TRUE(listed.out.contains(id + u"  active  Every day at 9:00 AM"))
        << listed.out.toStdString();

    const auto ran = cli({QStringLiteral("tasks"), QStringLiteral("run-now"), id});
    ASSERT_EQ(ran.exitCode, 0) << ran.err.toStdString();
    const QString chatID = ran.out.section(u"Chat "_s, 1).section(u'.', 0, 0);
    EXPECT_EQ(ran.out.section(u'\n', 1, 1), u"Hello from a task"); // the echo's answer

    const QJsonArray chats = savedChats();
    ASSERT_EQ(chats.size(), 1);
    EXPECT_EQ(chats.at(0)[u"id"].toString(), chatID);
    EXPECT_TRUE(chats.at(0)[u"title"].toString().startsWith(u"Daily digest — "))
        << chats.at(0)[u"title"].toString().toStdString();
    EXPECT_EQ(ledgerCharges().size(), 1);

    const QJsonArray runs = runsOf(id);
    ASSERT_EQ(runs.size(), 1);
    const QJsonObject run = runs.at(0).toObject();
    EXPECT_EQ(run.keys(), (QStringList{u"chatID"_s, u"error"_s, u"finishedAt"_s, u"id"_s,
                                       u"scheduledFor"_s, u"startedAt"_s, u"status"_s}));
    EXPECT_EQ(run[u"status"].toString(), u"succeeded");
    EXPECT_EQ(run[u"chatID"].toString(), chatID);
    EXPECT_TRUE(run[u"error"].isNull());

    // The headless scheduler: the task's 09:00 firing is made due by marking the task handled
    // only until the day before; the scheduler runs it once at start and keeps running.
    const auto store = openStore();
    const QDateTime now = QDateTime::currentDateTimeUtc();
    runTask(store->updateTasks(handledUntil(QUuid::fromString(id), now.addDays(-1).addSecs(-1))));
    QProcess scheduler;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), service.baseURL());
    scheduler.setProcessEnvironment(environment);
    scheduler.start(QStringLiteral(KESTROLAN_CLI_PATH), {QStringLiteral("scheduler")});
    QString output;
    while (!output.contains(u": succeeded, chat ")) {
        ASSERT_TRUE(scheduler.waitForReadyRead(60'000)) << output.toStdString();
        output += QString::fromUtf8(scheduler.readAllStandardOutput());
    }
    EXPECT_TRUE(output.contains(u"Run of \"Daily digest\" for ")) << output.toStdString();
    scheduler.terminate(); // SIGTERM
    ASSERT_TRUE(scheduler.waitForFinished(30'000));
    EXPECT_EQ(scheduler.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(scheduler.exitCode(), 0) << scheduler.readAllStandardError().toStdString();

    EXPECT_EQ(savedChats().size(), 2);
    EXPECT_EQ(ledgerCharges().size(), 2);
    const QJsonArray after = runsOf(id);
    ASSERT_EQ(after.size(), 2);
    EXPECT_EQ(after.at(0)[u"status"].toString(), u"succeeded");
    // The scheduled run belongs to its cron firing: 09:00 in the system's time zone.
    const auto firing =
        CronExpression(u"0 9 * * *")
            .mostRecentFire(std::chrono::sys_seconds(std::chrono::seconds(now.toSecsSinceEpoch())),
                            Scheduler::systemTimeZone());
    EXPECT_EQ(after.at(0)[u"scheduledFor"].toString(),
              taskDateText(QDateTime::fromSecsSinceEpoch(firing.time_since_epoch().count(),
                                                         QTimeZone::utc())));
}

TEST_F(TasksEndToEnd, WithZeroRetentionARunIsSkippedAndWithoutCreditItFails) {
    const QString id = addTask(QStringLiteral("Private"), QStringLiteral("Nothing to see"));
    service.admin("POST", QStringLiteral("/admin/zero-retention"), R"({"enabled":true})");

    const auto ran = cli({QStringLiteral("tasks"), QStringLiteral("run-now"), id});
    EXPECT_EQ(ran.exitCode, 1);
    EXPECT_EQ(ran.err, u"Skipped: Zero Data Retention is on, so scheduled tasks do not run. "
                       u"Nothing was sent.\n");
    EXPECT_TRUE(ledgerCharges().isEmpty());
    EXPECT_TRUE(savedChats().isEmpty());
    const QString log = service.logUntil(u"GET /api/chats"_s);
    EXPECT_TRUE(log.contains(u"GET /api/account")) << log.toStdString();
    EXPECT_FALSE(log.contains(u"POST /api/chat")) << log.toStdString();

    const QJsonArray runs = runsOf(id);
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs.at(0)[u"status"].toString(), u"skipped");
    EXPECT_TRUE(runs.at(0)[u"chatID"].isNull());
    EXPECT_EQ(runs.at(0)[u"error"].toString(),
              u"Zero Data Retention is on, so scheduled tasks do not run. Nothing was sent.");

    // Allowed again but without credit: the run fails with the service's reason.
    service.admin("POST", QStringLiteral("/admin/zero-retention"), R"({"enabled":false})");
    service.admin("POST", QStringLiteral("/admin/balance"), R"({"balance_usd":"0.00"})");
    const auto broke = cli({QStringLiteral("tasks"), QStringLiteral("run-now"), id});
    EXPECT_EQ(broke.exitCode, 1);
    const QString reason = u"The account's available credit does not cover this request. Add "
                           u"credit or lower max_tokens."_s;
    EXPECT_EQ(broke.err, u"Failed: "_s + reason + u'\n');
    const QJsonArray after = runsOf(id);
    ASSERT_EQ(after.size(), 2);
    EXPECT_EQ(after.at(0)[u"status"].toString(), u"failed");
    EXPECT_EQ(after.at(0)[u"error"].toString(), reason);
    EXPECT_TRUE(savedChats().isEmpty());
}

TEST_F(TasksEndToEnd, DraftsThatFailValidationAreRefusedWithTheirMessage) {
    const auto base = QStringList{QStringLiteral("tasks"), QStringLiteral("add"),
                                  QStringLiteral("--prompt"), QStringLiteral("Hi")};
    auto refused = cli(base + QStringList{QStringLiteral("--name"), QStringLiteral("Feb 31"),
                                          QStringLiteral("--cron"), QStringLiteral("0 0 31 2 *"),
                                          QStringLiteral("--model"), echo});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, u"This schedule has no upcoming date.\n");
    refused =
        cli(base + QStringList{QStringLiteral("--name"), QStringLiteral("Old model"),
                               QStringLiteral("--cadence"), QStringLiteral("weekly"),
                               QStringLiteral("--weekday"), QStringLiteral("fri"),
                               QStringLiteral("--at"), QStringLiteral("17:30"),
                               QStringLiteral("--model"), QStringLiteral("kestrolan/retired")});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, u"Choose an available model.\n");
    const auto list =
        cli({QStringLiteral("tasks"), QStringLiteral("list"), QStringLiteral("--json")});
    EXPECT_EQ(list.out.trimmed(), u"[]");

    // A valid one with the same options, then paused and found by its filter.
    const auto added = cli(base + QStringList{QStringLiteral("--name"), QStringLiteral("Friday"),
                                              QStringLiteral("--cadence"), QStringLiteral("weekly"),
                                              QStringLiteral("--weekday"), QStringLiteral("fri"),
                                              QStringLiteral("--at"), QStringLiteral("17:30"),
                                              QStringLiteral("--model"), echo});
    ASSERT_EQ(added.exitCode, 0) << added.err.toStdString();
    const QString id = added.out.trimmed();
    EXPECT_EQ(cli({QStringLiteral("tasks"), QStringLiteral("pause"), id}).exitCode, 0);
    const auto paused =
        cli({QStringLiteral("tasks"), QStringLiteral("list"), QStringLiteral("--filter"),
             QStringLiteral("paused"), QStringLiteral("--json")});
    const QJsonArray tasks = QJsonDocument::fromJson(paused.out.toUtf8()).array();
    ASSERT_EQ(tasks.size(), 1);
    EXPECT_EQ(tasks.at(0)[u"cron"].toString(), u"30 17 * * 5");
    EXPECT_FALSE(tasks.at(0)[u"enabled"].toBool());
    EXPECT_EQ(cli({QStringLiteral("tasks"), QStringLiteral("delete"), id}).exitCode, 0);
    const auto gone = cli({QStringLiteral("tasks"), QStringLiteral("runs"), id});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.err, u"No task has the id " + id + u".\n");
}

} // namespace
