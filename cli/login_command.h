#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli login [--no-browser] [--callback URL]`: browser sign-in. Prints the authorize
// address alone on standard output, opens it in the browser, then takes the address the browser
// was sent back to (kestrolan://auth/callback?...) from --callback or one line of standard input.
class LoginCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
