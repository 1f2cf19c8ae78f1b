#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli logout`: revokes the token on the service and removes it from the keyring.
// Signed out locally even when the service cannot be reached; the error is then shown and the
// exit status is 1.
class LogoutCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
