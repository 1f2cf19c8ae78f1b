#include "tools/local_access_mode.h"

namespace kestrolan {

QString toString(LocalAccessMode mode) {
    switch (mode) {
    case LocalAccessMode::off:
        return QStringLiteral("off");
    case LocalAccessMode::askEveryTime:
        return QStringLiteral("askEveryTime");
    case LocalAccessMode::readOnlyWorkspace:
        return QStringLiteral("readOnlyWorkspace");
    case LocalAccessMode::fullAccess:
        return QStringLiteral("fullAccess");
    }
    Q_UNREACHABLE();
    return {};
}

std::optional<LocalAccessMode> localAccessModeFromString(QStringView text) {
    for (const auto mode : {LocalAccessMode::off, LocalAccessMode::askEveryTime,
                            LocalAccessMode::readOnlyWorkspace, LocalAccessMode::fullAccess}) {
        if (toString(mode) == text)
            return mode;
    }
    return std::nullopt;
}

} // namespace kestrolan
