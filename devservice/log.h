#pragma once

#include <QLoggingCategory>

namespace kestrolan::devservice {

Q_DECLARE_LOGGING_CATEGORY(serviceLog)

} // namespace kestrolan::devservice
