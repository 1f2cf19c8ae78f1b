#pragma once

#include "support/json_reader.h"

#include <QDateTime>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// Field helpers shared by the task records. Dates are ISO 8601 text in UTC with milliseconds;
// every failure throws JsonReader::FieldError naming the key.
QString taskDateText(const QDateTime& date);
QDateTime taskDateFromText(const QString& text, const QString& key);
QDateTime taskDateField(const JsonReader& reader, QStringView key);
std::optional<QDateTime> optionalTaskDateField(const JsonReader& reader, QStringView key);
QUuid uuidField(const JsonReader& reader, QStringView key);
std::optional<QUuid> optionalUuidField(const JsonReader& reader, QStringView key);

} // namespace kestrolan
