#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli chat`: one turn with a message, or an interactive chat on a terminal, with
// tools, approvals, billing and saving as in the app.
class ChatCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
