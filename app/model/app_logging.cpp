#include "model/app_logging.h"

namespace kestrolan {

Q_LOGGING_CATEGORY(lifecycleLog, "org.kestrolan.mac.lifecycle", QtInfoMsg)

} // namespace kestrolan
