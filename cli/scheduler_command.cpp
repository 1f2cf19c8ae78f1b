#include "scheduler_command.h"

#include "command_line.h"
#include "local_command.h"
#include "scheduling/chat_task_runner.h"
#include "scheduling/desktop_task_notifier.h"
#include "scheduling/scheduler.h"
#include "scheduling/system_scheduler_clock.h"
#include "scheduling/task_store.h"
#include "service_connection.h"
#include "storage/agent_store.h"
#include "storage/project_store.h"
#include "support/uuid_text.h"
#include "tools/tool_text.h"

#include <QCoroSignal>
#include <QLoggingCategory>
#include <QProcess>
#include <QSocketNotifier>
#include <QUrl>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

Q_LOGGING_CATEGORY(lifecycleLog, "org.kestrolan.mac.lifecycle")

const QString help = QStringLiteral(
    "Usage: kestrolan-cli scheduler\n"
    "\n"
    "Runs the signed-in account's scheduled tasks at their times until interrupted (SIGINT or\n"
    "SIGTERM), printing one line per finished run. A task missed by at most 24 hours (the\n"
    "computer was off or asleep) runs once when the scheduler starts; older ones are recorded\n"
    "as skipped. It may run beside the desktop app: each firing runs once.\n"
    "A systemd user unit for it ships as packaging/kestrolan-scheduler.service.\n"
    "\n"
    "Options:\n"
    "  -h, --help   show this help");

// Written by the signal handler, read on the event loop.
int stopPipe[2] = {-1, -1};

void requestStop(int) {
    const char byte = 1;
    // Nothing to do on failure: a full pipe already holds a stop.
    [[maybe_unused]] const auto written = ::write(stopPipe[1], &byte, 1);
}

// SIGINT and SIGTERM as a readable pipe while it lives; the old handlers come back afterwards.
class TerminationSignals {
public:
    TerminationSignals() {
        if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0)
            throw Error(QStringLiteral("Could not watch for SIGINT and SIGTERM."));
        struct sigaction action = {};
        action.sa_handler = requestStop;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGINT, &action, &m_previousInt);
        ::sigaction(SIGTERM, &action, &m_previousTerm);
        m_notifier = std::make_unique<QSocketNotifier>(stopPipe[0], QSocketNotifier::Read);
    }

    ~TerminationSignals() {
        m_notifier.reset();
        ::sigaction(SIGINT, &m_previousInt, nullptr);
        ::sigaction(SIGTERM, &m_previousTerm, nullptr);
        ::close(stopPipe[0]);
        ::close(stopPipe[1]);
        stopPipe[0] = stopPipe[1] = -1;
    }

    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

    QSocketNotifier* notifier() const { return m_notifier.get(); }
    static void stop() { requestStop(0); }

private:
    struct sigaction m_previousInt = {};
    struct sigaction m_previousTerm = {};
    std::unique_ptr<QSocketNotifier> m_notifier;
};

QString describe(const TaskRun& run, const QString& taskName) {
    QString line = u"Run of \"" + ToolText::escaped(taskName) + u"\" for " +
                   run.scheduledFor.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")) +
                   u": " + TaskRun::toString(run.status);
    if (run.chatID)
        line += u", chat " + uuidText(*run.chatID);
    if (run.error)
        line += u": " + ToolText::escaped(*run.error);
    return line;
}

// Prints each finished run; stops the scheduler once the service has refused the token.
void report(Scheduler& scheduler, const Console& console, const ServiceConnection& connection) {
    QObject::connect(&scheduler, &Scheduler::runFinished, &scheduler,
                     [&console, &connection](const TaskRun& run, const QString& taskName) {
                         console.out(describe(run, taskName));
                         if (connection.wasSignedOut())
                             TerminationSignals::stop();
                     });
}

// Choosing a run's notification opens its chat in the desktop app.
void openChatsFrom(DesktopTaskNotifier& notifier) {
    QObject::connect(&notifier, &DesktopTaskNotifier::chatOpened, &notifier, [](const QUuid& id) {
        QProcess::startDetached(QStringLiteral("xdg-open"), {u"kestrolan://chat/" + uuidText(id)});
    });
}

} // namespace

QString SchedulerCommand::name() const {
    return QStringLiteral("scheduler");
}

QString SchedulerCommand::summary() const {
    return QStringLiteral("Run scheduled tasks without the desktop app, until interrupted");
}

QCoro::Task<int> SchedulerCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed =
        LocalCommand::parse(console(), parser, QStringLiteral("scheduler"), help, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;

    std::unique_ptr<ServiceConnection> connection;
    std::optional<EncryptedLocalStorage> storage;
    try {
        connection = std::make_unique<ServiceConnection>();
        storage = co_await LocalCommand::openStorage(connection.get());
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    TaskStore tasks(*storage);
    ProjectStore projects(*storage);
    AgentStore agents(*storage);
    ChatTaskRunner runner(connection->client(), &projects, &agents);
    DesktopTaskNotifier notifier;
    openChatsFrom(notifier);
    SystemSchedulerClock clock;
    Scheduler scheduler(clock);
    report(scheduler, console(), *connection);
    const TerminationSignals signals_;

    scheduler.setAccount(Scheduler::Attachment{&tasks, &runner, &notifier});
    qCInfo(lifecycleLog) << "Scheduler started";
    console().out(QStringLiteral("Scheduler running; stop it with Ctrl-C."));
    co_await qCoro(signals_.notifier(), &QSocketNotifier::activated);

    scheduler.setAccount(std::nullopt);
    if (!scheduler.isIdle())
        co_await qCoro(&scheduler, &Scheduler::idle);
    co_await tasks.close();
    co_await projects.close();
    co_await agents.close();
    qCInfo(lifecycleLog) << "Scheduler stopped; terminating";
    if (connection->wasSignedOut()) {
        console().err(signInHint());
        co_return exitNotSignedIn;
    }
    co_return exitSuccess;
}

} // namespace kestrolan::cli
