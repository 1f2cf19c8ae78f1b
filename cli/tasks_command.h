#pragma once

#include "command.h"

#include <QCommandLineParser>
#include <QUuid>
#include <optional>

namespace kestrolan {
struct TaskDraft;
}

namespace kestrolan::cli {

// `kestrolan-cli tasks list|add|edit|pause|resume|delete|runs|run-now`: the signed-in account's
// scheduled tasks, kept in its encrypted local data beside the desktop app's.
class TasksCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;

private:
    QCoro::Task<int> list(QStringList arguments);
    QCoro::Task<int> add(QStringList arguments);
    QCoro::Task<int> edit(QStringList arguments);
    QCoro::Task<int> setEnabled(QStringList arguments, bool enabled);
    QCoro::Task<int> remove(QStringList arguments);
    QCoro::Task<int> runs(QStringList arguments);
    QCoro::Task<int> runNow(QStringList arguments);

    // add and edit: the draft with the options given applied, or the exit code of a usage
    // error.
    QCoro::Task<int> save(QStringList arguments, bool adding);

    // The one task id a subcommand takes, or the exit code after a usage error or help.
    std::optional<QUuid> taskID(const QString& subcommand, const QString& help,
                                const QStringList& arguments, QCommandLineParser& parser,
                                int* exitCode) const;
};

} // namespace kestrolan::cli
