#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli scheduler`: the scheduler without the desktop app, in the foreground until
// SIGINT or SIGTERM, so that tasks run on a machine where the app is not open. Running beside
// the app never runs a firing twice: both claim each firing under the storage lock.
class SchedulerCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
