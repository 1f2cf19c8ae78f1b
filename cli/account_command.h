#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli account [--json]`: the signed-in account's e-mail address, balance, held and
// available amounts, and whether Zero Data Retention is on.
class AccountCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
