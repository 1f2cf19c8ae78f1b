#include "log.h"

namespace kestrolan::devservice {

Q_LOGGING_CATEGORY(serviceLog, "org.kestrolan.devservice")

} // namespace kestrolan::devservice
