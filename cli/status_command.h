#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli status [--json]`: the service address and whether it answers, the signed-in
// account, the selected model and whether the keyring can keep a token. Reports what it
// cannot find out instead of failing.
class StatusCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
