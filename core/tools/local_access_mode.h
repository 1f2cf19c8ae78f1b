#pragma once

#include <QString>
#include <optional>

namespace kestrolan {

// How far a chat may reach into the computer. Stored under these exact names.
enum class LocalAccessMode { off, askEveryTime, readOnlyWorkspace, fullAccess };

QString toString(LocalAccessMode mode);
std::optional<LocalAccessMode> localAccessModeFromString(QStringView text);

} // namespace kestrolan
