#include "tasks_command.h"

#include "account/catalog_store.h"
#include "command_line.h"
#include "local_command.h"
#include "platform/settings_defaults.h"
#include "scheduling/chat_task_runner.h"
#include "scheduling/desktop_task_notifier.h"
#include "scheduling/scheduled_run.h"
#include "scheduling/scheduler.h"
#include "scheduling/task_draft.h"
#include "scheduling/task_filter.h"
#include "scheduling/task_json.h"
#include "scheduling/task_store.h"
#include "service_connection.h"
#include "storage/agent_store.h"
#include "storage/project_store.h"
#include "support/uuid_text.h"
#include "tools/tool_text.h"

#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTimeZone>
#include <date/tz.h>

namespace kestrolan::cli {
namespace {

const QString groupHelp = QStringLiteral(
    "Usage: kestrolan-cli tasks SUBCOMMAND\n"
    "\n"
    "Scheduled tasks run a saved prompt on a cron schedule and save each answer as a chat.\n"
    "They run while the desktop app or \"kestrolan-cli scheduler\" is running.\n"
    "\n"
    "Subcommands:\n"
    "  list      List the tasks\n"
    "  add       Add a task\n"
    "  edit      Change a task\n"
    "  pause     Pause a task: it does not run until resumed\n"
    "  resume    Resume a paused task\n"
    "  delete    Delete a task (its runs stay in the history)\n"
    "  runs      Show a task's recent runs\n"
    "  run-now   Run a task at once, here, and print the outcome\n"
    "\n"
    "Run \"kestrolan-cli tasks SUBCOMMAND --help\" for its options.");

const QString listHelp = QStringLiteral(
    "Usage: kestrolan-cli tasks list [--filter all|active|paused] [--query TEXT] [--json]\n"
    "\n"
    "Lists the tasks, one line each: id, state, schedule, name.\n"
    "\n"
    "Options:\n"
    "  --filter F    all (default), active or paused\n"
    "  --query TEXT  only tasks whose name contains TEXT (ignoring case and accents)\n"
    "  --json        print one line of JSON instead: an array of tasks\n"
    "  -h, --help    show this help");

const QString draftOptionsHelp = QStringLiteral(
    "  --name NAME           the task's name\n"
    "  --prompt TEXT         the prompt sent at each run\n"
    "  --prompt-file FILE    read the prompt from FILE instead\n"
    "  --cron EXPR           a five-field cron schedule, e.g. \"0 9 * * MON-FRI\"\n"
    "  --cadence C           hourly, daily, weekdays or weekly instead of --cron\n"
    "  --at HH:MM            the time of day of the cadence (hourly uses the minutes)\n"
    "  --weekday DAY         the day of a weekly cadence: sun to sat, or 0 to 6\n"
    "  --model ID            the model that answers (default: the selected model)\n"
    "  --agent ID            an agent's instructions and model instead of --model\n"
    "  --project ID          include the project's instructions and files\n"
    "  --notify              post a desktop notification when a run finishes\n"
    "  --paused              keep the task paused\n");

const QString addHelp =
    QStringLiteral(
        "Usage: kestrolan-cli tasks add --name NAME (--prompt TEXT | --prompt-file FILE)\n"
        "         (--cron EXPR | --cadence C [--at HH:MM] [--weekday DAY])\n"
        "         [--model ID | --agent ID] [--project ID] [--notify] [--paused]\n"
        "\n"
        "Adds a task and prints its id. Schedules use the system's time zone.\n"
        "\n"
        "Options:\n") +
    draftOptionsHelp + QStringLiteral("  -h, --help            show this help");

const QString editHelp = QStringLiteral("Usage: kestrolan-cli tasks edit ID [OPTIONS]\n"
                                        "\n"
                                        "Changes what the options give and keeps the rest.\n"
                                        "\n"
                                        "Options:\n") +
                         draftOptionsHelp +
                         QStringLiteral("  --no-notify           post no notification\n"
                                        "  --no-project          include no project\n"
                                        "  -h, --help            show this help");

QString idHelp(const QString& subcommand, const QString& what) {
    return u"Usage: kestrolan-cli tasks " + subcommand + u" ID\n\n" + what +
           u"\n\nOptions:\n  -h, --help   show this help";
}

const QString runsHelp = QStringLiteral(
    "Usage: kestrolan-cli tasks runs ID [--json]\n"
    "\n"
    "Shows the task's recent runs, pending first, then newest first.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON instead: an array of runs with \"id\", \"status\",\n"
    "               \"scheduledFor\", \"startedAt\", \"finishedAt\", \"chatID\" and \"error\"\n"
    "  -h, --help   show this help");

// The account's local stores, opened as the desktop app opens them.
struct AccountData {
    std::unique_ptr<ServiceConnection> connection;
    std::unique_ptr<TaskStore> tasks;
    std::unique_ptr<ProjectStore> projects;
    std::unique_ptr<AgentStore> agents;
};

QCoro::Task<void> open(AccountData* data) {
    data->connection = std::make_unique<ServiceConnection>();
    const EncryptedLocalStorage storage =
        co_await LocalCommand::openStorage(data->connection.get());
    data->tasks = std::make_unique<TaskStore>(storage);
    data->projects = std::make_unique<ProjectStore>(storage);
    data->agents = std::make_unique<AgentStore>(storage);
}

class TaskNotFound : public Error {
public:
    explicit TaskNotFound(const QUuid& id)
        : Error(u"No task has the id " + uuidText(id) + u'.') {}
};

QString oneLine(const QString& text) {
    QString line = ToolText::escaped(text);
    line.replace(u'\n', u' ').replace(u'\t', u' ');
    return line;
}

QString localTime(const QDateTime& instant) {
    return instant.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QJsonValue orNull(const std::optional<QString>& text) {
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

QJsonObject runJson(const TaskRun& run) {
    return QJsonObject{
        {QStringLiteral("id"), uuidText(run.id)},
        {QStringLiteral("status"), TaskRun::toString(run.status)},
        {QStringLiteral("scheduledFor"), taskDateText(run.scheduledFor)},
        {QStringLiteral("startedAt"), taskDateText(run.startedAt)},
        {QStringLiteral("finishedAt"),
         orNull(run.finishedAt ? std::optional(taskDateText(*run.finishedAt)) : std::nullopt)},
        {QStringLiteral("chatID"),
         orNull(run.chatID ? std::optional(uuidText(*run.chatID)) : std::nullopt)},
        {QStringLiteral("error"), orNull(run.error)},
    };
}

std::optional<int> weekdayNumber(const QString& text) {
    const QString lower = text.trimmed().toLower();
    static const std::array<const char16_t*, 7> days{
        u"sunday", u"monday", u"tuesday", u"wednesday", u"thursday", u"friday", u"saturday"};
    for (int day = 0; day < 7; ++day) {
        const QString name = QString::fromUtf16(days.at(day));
        if (lower == name || lower == name.left(3))
            return day;
    }
    bool ok = false;
    const int number = lower.toInt(&ok);
    if (ok && number >= 0 && number <= 7)
        return number % 7;
    return std::nullopt;
}

bool hasProject(const QList<Project>& projects, const QUuid& id) {
    return std::any_of(projects.begin(), projects.end(),
                       [&](const Project& project) { return project.id == id; });
}

std::function<bool(StoredTasks&)> upsertTask(ScheduledTask task, QDateTime now, bool adding) {
    return [task, now, adding](StoredTasks& stored) {
        if (!adding && !stored.task(task.id))
            throw TaskNotFound(task.id);
        stored.upsert(task, now);
        return true;
    };
}

std::function<bool(StoredTasks&)> enableTask(QUuid id, bool enabled, QDateTime now) {
    return [id, enabled, now](StoredTasks& stored) {
        const ScheduledTask* held = stored.task(id);
        if (!held)
            throw TaskNotFound(id);
        ScheduledTask task = *held;
        task.enabled = enabled;
        stored.upsert(task, now);
        return true;
    };
}

std::function<bool(StoredTasks&)> removeTask(QUuid id) {
    return [id](StoredTasks& stored) {
        if (!stored.remove(id))
            throw TaskNotFound(id);
        return true;
    };
}

// What a task's line shows: its state, its schedule and when it next runs.
QString describe(const ScheduledTask& task) {
    QString line = uuidText(task.id) + (task.enabled ? u"  active  " : u"  paused  ") +
                   oneLine(task.cron.humanDescription());
    if (task.enabled) {
        try {
            const auto now =
                std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
            const auto next = task.cron.nextFire(now, Scheduler::systemTimeZone());
            line += u"  (next " +
                    localTime(QDateTime::fromSecsSinceEpoch(next.time_since_epoch().count(),
                                                            QTimeZone::utc())) +
                    u')';
        } catch (const Error&) {
        }
    }
    return line + u"  " + oneLine(task.name);
}

// The options add and edit share.
struct DraftOptions {
    QCommandLineOption name{QStringLiteral("name"), QString(), QStringLiteral("NAME")};
    QCommandLineOption prompt{QStringLiteral("prompt"), QString(), QStringLiteral("TEXT")};
    QCommandLineOption promptFile{QStringLiteral("prompt-file"), QString(), QStringLiteral("FILE")};
    QCommandLineOption cron{QStringLiteral("cron"), QString(), QStringLiteral("EXPR")};
    QCommandLineOption cadence{QStringLiteral("cadence"), QString(), QStringLiteral("C")};
    QCommandLineOption at{QStringLiteral("at"), QString(), QStringLiteral("HH:MM")};
    QCommandLineOption weekday{QStringLiteral("weekday"), QString(), QStringLiteral("DAY")};
    QCommandLineOption model{QStringLiteral("model"), QString(), QStringLiteral("ID")};
    QCommandLineOption agent{QStringLiteral("agent"), QString(), QStringLiteral("ID")};
    QCommandLineOption project{QStringLiteral("project"), QString(), QStringLiteral("ID")};
    QCommandLineOption notify{QStringLiteral("notify")};
    QCommandLineOption paused{QStringLiteral("paused")};
    QCommandLineOption noNotify{QStringLiteral("no-notify")};
    QCommandLineOption noProject{QStringLiteral("no-project")};

    void addTo(QCommandLineParser& parser, bool adding) const {
        parser.addOptions({name, prompt, promptFile, cron, cadence, at, weekday, model, agent,
                           project, notify, paused});
        if (!adding)
            parser.addOptions({noNotify, noProject});
    }

    // Applies the options to `draft`; returns a usage error's text, if any. The prompt file is
    // read only up to one byte past the prompt limit, so validation reports a larger one.
    std::optional<QString> apply(const QCommandLineParser& parser, TaskDraft& draft,
                                 bool adding) const {
        if (parser.isSet(prompt) && parser.isSet(promptFile))
            return QStringLiteral("give --prompt or --prompt-file, not both");
        if (parser.isSet(cron) && parser.isSet(cadence))
            return QStringLiteral("give --cron or --cadence, not both");
        if (parser.isSet(model) && parser.isSet(agent))
            return QStringLiteral("give --model or --agent, not both");
        // The negative options exist for edit only; asking the parser of add for them warns.
        const bool noNotifySet = !adding && parser.isSet(noNotify);
        const bool noProjectSet = !adding && parser.isSet(noProject);
        if (parser.isSet(notify) && noNotifySet)
            return QStringLiteral("give --notify or --no-notify, not both");
        if (parser.isSet(project) && noProjectSet)
            return QStringLiteral("give --project or --no-project, not both");
        if (adding && !parser.isSet(name))
            return QStringLiteral("give --name");
        if (adding && !parser.isSet(prompt) && !parser.isSet(promptFile))
            return QStringLiteral("give --prompt or --prompt-file");
        if (adding && !parser.isSet(cron) && !parser.isSet(cadence))
            return QStringLiteral("give --cron or --cadence");
        if (parser.isSet(name))
            draft.name = parser.value(name);
        if (parser.isSet(prompt))
            draft.prompt = parser.value(prompt);
        if (parser.isSet(promptFile)) {
            QFile file(parser.value(promptFile));
            if (!file.open(QIODevice::ReadOnly))
                return u"cannot read \"" + parser.value(promptFile) + u"\": " + file.errorString();
            draft.prompt = QString::fromUtf8(file.read(TaskDraft::maximumPromptBytes + 1));
        }
        if (parser.isSet(cron)) {
            draft.cadence = TaskDraft::Cadence::custom;
            draft.customCron = parser.value(cron);
        }
        if (parser.isSet(cadence)) {
            const auto chosen = TaskDraft::cadenceFromString(parser.value(cadence));
            if (!chosen || *chosen == TaskDraft::Cadence::custom)
                return u"unknown cadence \"" + parser.value(cadence) +
                       u"\" (hourly, daily, weekdays or weekly)";
            draft.cadence = *chosen;
        }
        if (parser.isSet(at)) {
            static const QRegularExpression time(QStringLiteral("^([0-9]{1,2}):([0-9]{2})$"));
            const auto match = time.match(parser.value(at));
            if (!match.hasMatch())
                return u"\"" + parser.value(at) + u"\" is not a time (HH:MM)";
            draft.hour = match.captured(1).toInt();
            draft.minute = match.captured(2).toInt();
        }
        if (parser.isSet(weekday)) {
            const auto day = weekdayNumber(parser.value(weekday));
            if (!day)
                return u"\"" + parser.value(weekday) + u"\" is not a weekday (sun to sat)";
            draft.weekday = *day;
        }
        if (parser.isSet(model)) {
            draft.usesAgent = false;
            draft.model = parser.value(model);
        }
        if (parser.isSet(agent)) {
            const auto id = uuidFromText(parser.value(agent));
            if (!id)
                return u"\"" + parser.value(agent) + u"\" is not an agent id";
            draft.usesAgent = true;
            draft.agentID = id;
        }
        if (parser.isSet(project)) {
            const auto id = uuidFromText(parser.value(project));
            if (!id)
                return u"\"" + parser.value(project) + u"\" is not a project id";
            draft.projectID = id;
        }
        if (noProjectSet)
            draft.projectID.reset();
        if (parser.isSet(notify))
            draft.notify = true;
        if (noNotifySet)
            draft.notify = false;
        if (parser.isSet(paused))
            draft.enabled = false;
        return std::nullopt;
    }
};

int usageError(const Console& console, const QString& command, const QString& message) {
    console.err(u"kestrolan-cli tasks " + command + u": " + message +
                u"\nRun \"kestrolan-cli tasks " + command + u" --help\" for usage.");
    return exitUsage;
}

} // namespace

QString TasksCommand::name() const {
    return QStringLiteral("tasks");
}

QString TasksCommand::summary() const {
    return QStringLiteral("List, add, change and run scheduled tasks");
}

QCoro::Task<int> TasksCommand::run(QStringList arguments) {
    return runSubcommand(
        std::move(arguments), groupHelp,
        {{QLatin1StringView("list"), [this](QStringList rest) { return list(std::move(rest)); }},
         {QLatin1StringView("add"),
          [this](QStringList rest) { return save(std::move(rest), true); }},
         {QLatin1StringView("edit"),
          [this](QStringList rest) { return save(std::move(rest), false); }},
         {QLatin1StringView("pause"),
          [this](QStringList rest) { return setEnabled(std::move(rest), false); }},
         {QLatin1StringView("resume"),
          [this](QStringList rest) { return setEnabled(std::move(rest), true); }},
         {QLatin1StringView("delete"),
          [this](QStringList rest) { return remove(std::move(rest)); }},
         {QLatin1StringView("runs"), [this](QStringList rest) { return runs(std::move(rest)); }},
         {QLatin1StringView("run-now"),
          [this](QStringList rest) { return runNow(std::move(rest)); }}});
}

std::optional<QUuid> TasksCommand::taskID(const QString& subcommand, const QString& help,
                                          const QStringList& arguments, QCommandLineParser& parser,
                                          int* exitCode) const {
    const auto parsed = LocalCommand::parse(console(), parser, u"tasks " + subcommand, help,
                                            arguments, 1, QStringLiteral("the id of one task"));
    if (const int* code = std::get_if<int>(&parsed)) {
        *exitCode = *code;
        return std::nullopt;
    }
    const auto id = LocalCommand::idArgument(console(), u"tasks " + subcommand,
                                             std::get<QStringList>(parsed).first(),
                                             QStringLiteral("a task id"));
    if (!id)
        *exitCode = exitUsage;
    return id;
}

QCoro::Task<int> TasksCommand::list(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption filterOption(QStringLiteral("filter"), QString(), QStringLiteral("F"),
                                          QStringLiteral("all"));
    const QCommandLineOption queryOption(QStringLiteral("query"), QString(),
                                         QStringLiteral("TEXT"));
    const QCommandLineOption jsonOption(QStringLiteral("json"));
    parser.addOptions({filterOption, queryOption, jsonOption});
    const auto parsed = LocalCommand::parse(console(), parser, QStringLiteral("tasks list"),
                                            listHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const QString filterText = parser.value(filterOption);
    std::optional<TaskFilter> filter;
    for (const auto candidate : allTaskFilters) {
        if (toString(candidate).compare(filterText, Qt::CaseInsensitive) == 0)
            filter = candidate;
    }
    if (!filter)
        co_return usageError(console(), QStringLiteral("list"),
                             u"unknown filter \"" + filterText + u"\" (all, active or paused)");

    AccountData data;
    QList<ScheduledTask> tasks;
    try {
        co_await open(&data);
        tasks = (co_await data.tasks->load()).schedules.tasks;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    tasks = apply(*filter, tasks, parser.value(queryOption));
    if (parser.isSet(jsonOption)) {
        QJsonArray array;
        for (const auto& task : tasks)
            array.append(task.toJson());
        console().out(compactJson(array));
        co_return exitSuccess;
    }
    if (tasks.isEmpty()) {
        console().out(QStringLiteral("No scheduled tasks."));
        co_return exitSuccess;
    }
    QStringList lines;
    for (const auto& task : tasks)
        lines << describe(task);
    console().out(lines.join(u'\n'));
    co_return exitSuccess;
}

QCoro::Task<int> TasksCommand::save(QStringList arguments, bool adding) {
    const QString subcommand = adding ? QStringLiteral("add") : QStringLiteral("edit");
    QCommandLineParser parser;
    const DraftOptions options;
    options.addTo(parser, adding);
    std::optional<QUuid> editedID;
    if (adding) {
        const auto parsed = LocalCommand::parse(console(), parser, QStringLiteral("tasks add"),
                                                addHelp, arguments, 0);
        if (const int* code = std::get_if<int>(&parsed))
            co_return *code;
    } else {
        int code = exitSuccess;
        editedID = taskID(subcommand, editHelp, arguments, parser, &code);
        if (!editedID)
            co_return code;
    }

    AccountData data;
    try {
        co_await open(&data);
        TaskDraft draft;
        if (editedID) {
            const StoredTasks stored = (co_await data.tasks->load()).schedules;
            const ScheduledTask* task = stored.task(*editedID);
            if (!task)
                throw TaskNotFound(*editedID);
            draft = TaskDraft::fromTask(*task);
        }
        if (const auto problem = options.apply(parser, draft, adding))
            co_return usageError(console(), subcommand, *problem);

        SettingsDefaults defaults;
        CatalogStore catalog(data.connection->client(), defaults);
        co_await catalog.refresh();
        if (catalog.models().isEmpty() && catalog.errorMessage())
            throw Error(*catalog.errorMessage());
        if (adding && !draft.usesAgent && draft.model.isEmpty())
            draft.model = catalog.selectedModelID().value_or(QString());
        const QList<Agent> agents = co_await data.agents->list();
        if (draft.projectID) {
            const QList<Project> projects = co_await data.projects->list();
            if (!hasProject(projects, *draft.projectID))
                throw Error(u"No project has the id " + uuidText(*draft.projectID) + u'.');
        }
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const ScheduledTask task =
            draft.task(agents, catalog.models(),
                       std::chrono::sys_seconds(std::chrono::seconds(now.toSecsSinceEpoch())),
                       Scheduler::systemTimeZone());
        co_await data.tasks->updateTasks(upsertTask(task, now, adding));
        console().out(adding ? uuidText(task.id) : u"Changed task " + uuidText(task.id) + u'.');
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    co_return exitSuccess;
}

QCoro::Task<int> TasksCommand::setEnabled(QStringList arguments, bool enabled) {
    const QString subcommand = enabled ? QStringLiteral("resume") : QStringLiteral("pause");
    QCommandLineParser parser;
    int code = exitSuccess;
    const auto id =
        taskID(subcommand,
               idHelp(subcommand, enabled ? QStringLiteral("Resumes a paused task: it runs at "
                                                           "its next time, not for times missed.")
                                          : QStringLiteral("Pauses a task: it does not run "
                                                           "until resumed.")),
               arguments, parser, &code);
    if (!id)
        co_return code;
    AccountData data;
    try {
        co_await open(&data);
        co_await data.tasks->updateTasks(enableTask(*id, enabled, QDateTime::currentDateTimeUtc()));
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    console().out((enabled ? u"Resumed task " : u"Paused task ") + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> TasksCommand::remove(QStringList arguments) {
    QCommandLineParser parser;
    int code = exitSuccess;
    const auto id = taskID(QStringLiteral("delete"),
                           idHelp(QStringLiteral("delete"),
                                  QStringLiteral("Deletes the task. Its runs stay in the history "
                                                 "and its chats on your account.")),
                           arguments, parser, &code);
    if (!id)
        co_return code;
    AccountData data;
    try {
        co_await open(&data);
        co_await data.tasks->updateTasks(removeTask(*id));
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    console().out(u"Deleted task " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> TasksCommand::runs(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"));
    parser.addOption(jsonOption);
    int code = exitSuccess;
    const auto id = taskID(QStringLiteral("runs"), runsHelp, arguments, parser, &code);
    if (!id)
        co_return code;
    AccountData data;
    QList<TaskRun> history;
    try {
        co_await open(&data);
        const TaskStoreSnapshot snapshot = co_await data.tasks->load();
        if (!snapshot.schedules.task(*id))
            throw TaskNotFound(*id);
        for (const auto& run : TaskRun::trim(snapshot.runs)) {
            if (run.taskID == *id)
                history.append(run);
        }
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    if (parser.isSet(jsonOption)) {
        QJsonArray array;
        for (const auto& run : history)
            array.append(runJson(run));
        console().out(compactJson(array));
        co_return exitSuccess;
    }
    if (history.isEmpty()) {
        console().out(QStringLiteral("No runs yet."));
        co_return exitSuccess;
    }
    QStringList lines;
    for (const auto& run : history) {
        QString line =
            localTime(run.scheduledFor) + u"  " + TaskRun::toString(run.status).leftJustified(9);
        if (run.chatID)
            line += u"  chat " + uuidText(*run.chatID);
        if (run.error)
            line += u"  " + oneLine(*run.error);
        lines << line;
    }
    console().out(lines.join(u'\n'));
    co_return exitSuccess;
}

QCoro::Task<int> TasksCommand::runNow(QStringList arguments) {
    QCommandLineParser parser;
    int code = exitSuccess;
    const auto id = taskID(QStringLiteral("run-now"),
                           idHelp(QStringLiteral("run-now"),
                                  QStringLiteral("Runs the task at once in this process, records "
                                                 "the run in its history and prints the "
                                                 "outcome.\nExits 1 when the run failed or was "
                                                 "skipped.")),
                           arguments, parser, &code);
    if (!id)
        co_return code;
    AccountData data;
    TaskRun finished;
    try {
        co_await open(&data);
        const StoredTasks stored = (co_await data.tasks->load()).schedules;
        const ScheduledTask* found = stored.task(*id);
        if (!found)
            throw TaskNotFound(*id);
        const ScheduledTask task = *found;
        ChatTaskRunner runner(data.connection->client(), data.projects.get(), data.agents.get());
        DesktopTaskNotifier notifier;
        ScheduledRun scheduled(*data.tasks, runner, &notifier,
                               [] { return QDateTime::currentDateTimeUtc(); });
        finished = co_await scheduled.perform(
            task, scheduled.queued(task, QDateTime::currentDateTimeUtc()));
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), data.connection.get());
    }
    if (finished.status != TaskRun::Status::succeeded) {
        const QString error = finished.error.value_or(QString());
        console().err((finished.status == TaskRun::Status::skipped ? u"Skipped: " : u"Failed: ") +
                      error);
        // A token refused meanwhile is gone from the keyring: say how to sign in again.
        if (data.connection->wasSignedOut()) {
            console().err(signInHint());
            co_return exitNotSignedIn;
        }
        co_return exitFailure;
    }
    console().out(u"Succeeded. Chat " + uuidText(finished.chatID.value_or(QUuid())) + u'.');
    if (finished.preview && !finished.preview->isEmpty())
        console().out(ToolText::escaped(*finished.preview));
    co_return exitSuccess;
}

} // namespace kestrolan::cli
