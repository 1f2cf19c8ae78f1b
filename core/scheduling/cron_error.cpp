#include "scheduling/cron_error.h"

namespace kestrolan {

CronError::CronError(Kind kind, QString description)
    : Error(std::move(description))
    , m_kind(kind) {}

CronError CronError::invalidExpression(QString message) {
    return CronError(Kind::invalidExpression, std::move(message));
}

CronError CronError::noNextFire() {
    return CronError(Kind::noNextFire, QStringLiteral("This schedule has no upcoming date."));
}

} // namespace kestrolan
