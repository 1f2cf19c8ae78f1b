#pragma once

#include "console.h"

#include <QCoroTask>
#include <QList>
#include <QString>
#include <QStringList>
#include <functional>

namespace kestrolan::cli {

// Process exit codes shared by every command.
enum ExitCode : int {
    exitSuccess = 0,
    exitFailure = 1,     // the operation failed; its description went to standard error
    exitUsage = 2,       // the command line was wrong
    exitNotSignedIn = 4, // the command needs a sign-in and there is none (or it was revoked)
};

// One top-level command group of kestrolan-cli ("cron", later "login", "models" ...). Commands
// are coroutines so that those talking to the service can await the network on the event loop.
class Command {
public:
    explicit Command(const Console& console)
        : m_console(console) {}
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    // The word that selects the command, and one line for the top-level help.
    virtual QString name() const = 0;
    virtual QString summary() const = 0;

    // `arguments` are those after the command's name; the result is the process exit code.
    virtual QCoro::Task<int> run(QStringList arguments) = 0;

protected:
    const Console& console() const { return m_console; }

    // A word of a command group ("list", "show" ...) and what runs it with the arguments that
    // follow the word.
    struct Subcommand {
        QLatin1StringView word;
        std::function<QCoro::Task<int>(QStringList)> run;
    };
    // Runs the subcommand that `arguments` start with. -h/--help prints `groupHelp`; a missing
    // or unknown word is a usage error that shows it.
    QCoro::Task<int> runSubcommand(QStringList arguments, QString groupHelp,
                                   QList<Subcommand> subcommands) const;

private:
    const Console& m_console;
};

} // namespace kestrolan::cli
