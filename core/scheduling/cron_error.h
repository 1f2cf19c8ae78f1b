#pragma once

#include "error.h"

namespace kestrolan {

// Failures of cron parsing and firing-time searches, shown to the user as they stand.
class CronError : public Error {
public:
    enum class Kind {
        invalidExpression,
        noNextFire,
    };

    static CronError invalidExpression(QString message);
    static CronError noNextFire();

    Kind kind() const { return m_kind; }

    bool operator==(const CronError& other) const {
        return m_kind == other.m_kind && description() == other.description();
    }

private:
    CronError(Kind kind, QString description);

    Kind m_kind;
};

} // namespace kestrolan
