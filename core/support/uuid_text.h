#pragma once

#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// A UUID in its standard 36-character text form (any letter case), or nothing.
inline std::optional<QUuid> uuidFromText(QStringView text) {
    if (text.size() != 36)
        return std::nullopt;
    const QUuid uuid = QUuid::fromString(text);
    if (uuid.isNull() && text != u"00000000-0000-0000-0000-000000000000")
        return std::nullopt;
    return uuid;
}

// The standard text form, lower case, without braces.
inline QString uuidText(const QUuid& uuid) {
    return uuid.toString(QUuid::WithoutBraces);
}

} // namespace kestrolan
