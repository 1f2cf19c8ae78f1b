#include "tools/local_access_mode.h"

#include "support/enum_names.h"

namespace kestrolan {

namespace {

constexpr EnumNames modeNames{std::array{
    std::pair{LocalAccessMode::off, u"off"},
    std::pair{LocalAccessMode::askEveryTime, u"askEveryTime"},
    std::pair{LocalAccessMode::readOnlyWorkspace, u"readOnlyWorkspace"},
    std::pair{LocalAccessMode::fullAccess, u"fullAccess"},
}};

} // namespace

QString toString(LocalAccessMode mode) {
    return modeNames.name(mode);
}

std::optional<LocalAccessMode> localAccessModeFromString(QStringView text) {
    return modeNames.value(text);
}

} // namespace kestrolan
