#include "scheduling/task_json.h"

#include "support/uuid_text.h"

namespace kestrolan {

QString taskDateText(const QDateTime& date) {
    return date.toUTC().toString(Qt::ISODateWithMs);
}

QDateTime taskDateFromText(const QString& text, const QString& key) {
    // A date without a zone would move with the local time zone: only zoned dates are read.
    const qsizetype n = text.size();
    const bool zoned =
        text.endsWith(u'Z') ||
        (n > 6 && (text.at(n - 6) == u'+' || text.at(n - 6) == u'-') && text.at(n - 3) == u':');
    const QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!zoned || !date.isValid() || text.indexOf(u'T') != 10)
        throw JsonReader::FieldError(key);
    return date.toUTC();
}

QDateTime taskDateField(const JsonReader& reader, QStringView key) {
    return taskDateFromText(reader.string(key), key.toString());
}

std::optional<QDateTime> optionalTaskDateField(const JsonReader& reader, QStringView key) {
    const auto text = reader.optionalString(key);
    if (!text)
        return std::nullopt;
    return taskDateFromText(*text, key.toString());
}

QUuid uuidField(const JsonReader& reader, QStringView key) {
    const auto id = uuidFromText(reader.string(key));
    if (!id)
        throw JsonReader::FieldError(key.toString());
    return *id;
}

std::optional<QUuid> optionalUuidField(const JsonReader& reader, QStringView key) {
    const auto text = reader.optionalString(key);
    if (!text)
        return std::nullopt;
    const auto id = uuidFromText(*text);
    if (!id)
        throw JsonReader::FieldError(key.toString());
    return id;
}

} // namespace kestrolan
