#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/desktop_task_notifier.h"
#include "scheduling/scheduled_run.h"
#include "scheduling/task_runner.h"
#include "scheduling/task_store.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The notification service of a desktop, on the test's private session bus: it keeps what it
// was asked to show and can report a click, as a notification daemon does.
class NotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct Shown {
        QString appName;
        QString summary;
        QString body;
        QStringList actions;
    };

    explicit NotificationServer(QDBusConnection bus)
        : m_bus(std::move(bus)) {}

    void click(uint id, const QString& action) {
        auto signal =
            QDBusMessage::createSignal(u"/org/freedesktop/Notifications"_s,
                                       u"org.freedesktop.Notifications"_s, u"ActionInvoked"_s);
        signal << id << action;
        m_bus.send(signal);
    }

    std::vector<Shown> shown;

public Q_SLOTS:
    uint Notify(const QString& appName, uint, const QString&, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap&, int) {
        shown.push_back({appName, summary, body, actions});
        return uint(shown.size()) + 40;
    }

private:
    QDBusConnection m_bus;
};

namespace kestrolan {
namespace {

using test::runTask;
using test::runUntil;

TEST(DesktopTaskNotifier, PostsTheRunAndOpensItsChatWhenChosen) {
    ASSERT_TRUE(QDBusConnection::sessionBus().isConnected()) << "needs a private session bus";
    // The server answers on a connection of its own, like a daemon in another process.
    QDBusConnection serverBus =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"notification-server"_s);
    NotificationServer server(serverBus);
    ASSERT_TRUE(serverBus.registerObject(u"/org/freedesktop/Notifications"_s, &server,
                                         QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(serverBus.registerService(u"org.freedesktop.Notifications"_s));

    DesktopTaskNotifier notifier;
    QSignalSpy opened(&notifier, &DesktopTaskNotifier::chatOpened);
    const QUuid chat = QUuid::createUuid();
    runTask(notifier.notify(u"Morning <digest>"_s, u"Rain & wind <b>later</b>"_s, chat));
    runTask(notifier.notify(u"Failed task"_s, u"Insufficient credit."_s, std::nullopt));
    ASSERT_EQ(server.shown.size(), 2U);
    EXPECT_EQ(server.shown.at(0).appName, u"Kestrolan"_s);
    EXPECT_EQ(server.shown.at(0).summary, u"Morning <digest>"_s);
    // Bodies may be read as markup: the reply's text must not become some.
    EXPECT_EQ(server.shown.at(0).body, u"Rain &amp; wind &lt;b&gt;later&lt;/b&gt;"_s);
    EXPECT_EQ(server.shown.at(0).actions, (QStringList{u"default"_s, u"Open Chat"_s}));
    // Without a chat there is nothing to open.
    EXPECT_TRUE(server.shown.at(1).actions.isEmpty());

    server.click(42, u"other"_s);   // not the default action
    server.click(43, u"default"_s); // not a notification that opens a chat
    server.click(41, u"default"_s);
    runUntil([&] { return opened.size() == 1; });
    EXPECT_EQ(opened.at(0).at(0).value<QUuid>(), chat);

    serverBus.unregisterService(u"org.freedesktop.Notifications"_s);
    QDBusConnection::disconnectFromBus(u"notification-server"_s);
}

class SucceedingRunner final : public TaskRunner {
public:
    QCoro::Task<Outcome> run(ScheduledTask, QDateTime, std::stop_token) override {
        co_return Outcome{.status = TaskRun::Status::succeeded,
                          .chatID = QUuid::createUuid(),
                          .preview = u"All quiet."_s};
    }
};

TEST(DesktopTaskNotifier, WithoutANotificationServiceTheRunStillSucceeds) {
    ASSERT_FALSE(QDBusConnection::sessionBus().interface()->isServiceRegistered(
        u"org.freedesktop.Notifications"_s));
    DesktopTaskNotifier notifier;
    EXPECT_THROW(runTask(notifier.notify(u"Task"_s, u"Body"_s, QUuid::createUuid())), Error);

    TaskStore store(std::nullopt);
    SucceedingRunner runner;
    ScheduledRun scheduled(store, runner, &notifier,
                           [] { return QDateTime::currentDateTimeUtc(); });
    const ScheduledTask task{.id = QUuid::createUuid(),
                             .name = u"Quiet"_s,
                             .cron = CronExpression(u"0 9 * * *"),
                             .notify = true,
                             .createdAt = QDateTime::currentDateTimeUtc()};
    const TaskRun finished =
        runTask(scheduled.perform(task, scheduled.queued(task, QDateTime::currentDateTimeUtc())));
    EXPECT_EQ(finished.status, TaskRun::Status::succeeded);
    EXPECT_EQ(finished.preview, u"All quiet."_s);
    EXPECT_EQ(runTask(store.load()).runs.at(0).status, TaskRun::Status::succeeded);
}

} // namespace
} // namespace kestrolan

#include "desktop_task_notifier_test.moc"
