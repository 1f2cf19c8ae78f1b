#include "tools/web_tool_settings.h"

#include "platform/defaults.h"

namespace kestrolan {

namespace {

// Only a stored true turns a tool on; a missing, damaged or foreign value leaves it off.
bool storedFlag(const Defaults& defaults, const QString& key) {
    const auto stored = defaults.value(key);
    if (!stored)
        return false;
    if (stored->typeId() == QMetaType::Bool)
        return stored->toBool();
    // The settings file keeps booleans as text.
    if (stored->typeId() == QMetaType::QString)
        return stored->toString() == u"true";
    return false;
}

} // namespace

WebToolSettings WebToolSettings::load(const Defaults& defaults) {
    return WebToolSettings{storedFlag(defaults, searchEnabledKey),
                           storedFlag(defaults, fetchEnabledKey)};
}

void WebToolSettings::store(Defaults& defaults) const {
    defaults.setValue(searchEnabledKey, searchEnabled);
    defaults.setValue(fetchEnabledKey, fetchEnabled);
}

} // namespace kestrolan
