#include "account_command.h"
#include "agents_command.h"
#include "chat_command.h"
#include "chats_command.h"
#include "command.h"
#include "console.h"
#include "cron_command.h"
#include "error.h"
#include "local_command.h"
#include "login_command.h"
#include "logout_command.h"
#include "models_command.h"
#include "projects_command.h"
#include "scheduler_command.h"
#include "status_command.h"
#include "tasks_command.h"

#include <QCoreApplication>
#include <exception>
#include <memory>
#include <vector>

using namespace kestrolan::cli;

namespace {

QString topLevelHelp(const std::vector<std::unique_ptr<Command>>& commands) {
    QString help = QStringLiteral("Usage: kestrolan-cli COMMAND [ARGUMENTS]\n"
                                  "       kestrolan-cli --version\n\nCommands:\n");
    for (const auto& command : commands)
        help += u"  " + command->name().leftJustified(10) + command->summary() + u'\n';
    help += QStringLiteral(
        "\n"
        "Exit status:\n"
        "  0  success\n"
        "  1  failure; the reason is on standard error\n"
        "  2  bad usage\n"
        "  4  not signed in: the command needs a sign-in (run \"kestrolan-cli login\")\n"
        "\n"
        "With --json a command prints compact JSON: one document on one line.\n"
        "Run \"kestrolan-cli COMMAND --help\" for a command's usage.");
    return help;
}

// Runs a command; an error it does not handle itself still ends the process with its text.
QCoro::Task<int> runCommand(Command* command, QStringList arguments, const Console* console) {
    try {
        const int code = co_await command->run(std::move(arguments));
        co_return code;
    } catch (const kestrolan::Error& error) {
        console->err(error.description());
    } catch (const std::exception& error) {
        console->err(QString::fromUtf8(error.what()));
    }
    co_return exitFailure;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kestrolan-cli"));

    const Console console;
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<LoginCommand>(console));
    commands.push_back(std::make_unique<LogoutCommand>(console));
    commands.push_back(std::make_unique<StatusCommand>(console));
    commands.push_back(std::make_unique<AccountCommand>(console));
    commands.push_back(std::make_unique<ModelsCommand>(console));
    commands.push_back(std::make_unique<ChatCommand>(console));
    commands.push_back(std::make_unique<ChatsCommand>(console));
    commands.push_back(std::make_unique<ProjectsCommand>(console));
    commands.push_back(std::make_unique<AgentsCommand>(console));
    commands.push_back(std::make_unique<LocalCommand>(console));
    commands.push_back(std::make_unique<TasksCommand>(console));
    commands.push_back(std::make_unique<SchedulerCommand>(console));
    commands.push_back(std::make_unique<CronCommand>(console));

    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.isEmpty()) {
        console.err(topLevelHelp(commands));
        return exitUsage;
    }
    const QString& word = arguments.first();
    if (word == u"--help" || word == u"-h" || word == u"help") {
        console.out(topLevelHelp(commands));
        return exitSuccess;
    }
    if (word == u"--version") {
        console.out(QStringLiteral("kestrolan-cli " KESTROLAN_VERSION));
        return exitSuccess;
    }
    for (const auto& command : commands) {
        if (command->name() == word)
            return QCoro::waitFor(runCommand(command.get(), arguments.mid(1), &console));
    }
    console.err(u"kestrolan-cli: unknown command \"" + word +
                u"\"\nRun \"kestrolan-cli --help\" for the list of commands.");
    return exitUsage;
}
