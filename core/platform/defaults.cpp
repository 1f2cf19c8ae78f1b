#include "platform/defaults.h"

namespace kestrolan {

std::optional<QString> Defaults::string(const QString& key) const {
    const auto stored = value(key);
    if (!stored || stored->typeId() != QMetaType::QString)
        return std::nullopt;
    return stored->toString();
}

} // namespace kestrolan
