#pragma once

#include <QLoggingCategory>

namespace kestrolan {

// The app's life-cycle lines ("Main window closed; app remains running", ...), filed under
// org.kestrolan.mac.lifecycle so they can be filtered with QT_LOGGING_RULES or journalctl.
Q_DECLARE_LOGGING_CATEGORY(lifecycleLog)

} // namespace kestrolan
