#pragma once

#include "command.h"

namespace kestrolan::cli {

// `kestrolan-cli cron explain EXPR [--tz ZONE] [--count N] [--after ISO8601]`: shows how the
// scheduler reads an expression and when it will fire.
class CronCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;

    // Most fire times one call lists.
    static constexpr int maximumCount = 1000;

private:
    int explain(const QStringList& arguments) const;
    int usageError(const QString& message) const;
};

} // namespace kestrolan::cli
