#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli models [--json]`: the model catalog in the service's order, the selected
// model marked with "*".
class ModelsCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;
};

} // namespace kestrolan::cli
