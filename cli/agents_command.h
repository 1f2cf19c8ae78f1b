#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli agents list|show|create|edit|delete`: the signed-in account's agents (named
// instructions, model and temperature), kept encrypted on this computer.
class AgentsCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;

private:
    QCoro::Task<int> list(QStringList arguments);
    QCoro::Task<int> show(QStringList arguments);
    QCoro::Task<int> create(QStringList arguments);
    QCoro::Task<int> edit(QStringList arguments);
    QCoro::Task<int> remove(QStringList arguments);
};

} // namespace kestrolan::cli
