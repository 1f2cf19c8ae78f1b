#pragma once

#include <QJsonObject>
#include <QSet>
#include <QString>

namespace kestrolan {

// Strict decoding of what the model sends: throws HarnessError(invalidArguments) when `object`
// holds any key outside `allowed`, whatever its value (null included).
void rejectUnknownFields(const QJsonObject& object, const QSet<QString>& allowed);

} // namespace kestrolan
