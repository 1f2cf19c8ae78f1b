#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli projects list|show|create|edit|delete|add-file|remove-file`: the signed-in
// account's projects, kept encrypted on this computer.
class ProjectsCommand : public Command {
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
    QCoro::Task<int> addFile(QStringList arguments);
    QCoro::Task<int> removeFile(QStringList arguments);
};

} // namespace kestrolan::cli
