#include "support/json_reader.h"

#include <algorithm>
#include <cmath>

namespace kestrolan {

JsonReader::FieldError::FieldError(const QString& fieldKey)
    : std::runtime_error("invalid JSON field: " + fieldKey.toStdString())
    , key(fieldKey) {}

JsonReader::JsonReader(QJsonObject object)
    : m_object(std::move(object)) {}

bool JsonReader::has(QStringView key) const {
    const auto value = m_object.value(key);
    return !value.isUndefined() && !value.isNull();
}

QJsonValue JsonReader::present(QStringView key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        throw FieldError(key.toString());
    return value;
}

QString JsonReader::string(QStringView key) const {
    const auto value = present(key);
    if (!value.isString())
        throw FieldError(key.toString());
    return value.toString();
}

std::optional<QString> JsonReader::optionalString(QStringView key) const {
    return has(key) ? std::optional(string(key)) : std::nullopt;
}

bool JsonReader::boolean(QStringView key) const {
    const auto value = present(key);
    if (!value.isBool())
        throw FieldError(key.toString());
    return value.toBool();
}

std::optional<bool> JsonReader::optionalBoolean(QStringView key) const {
    return has(key) ? std::optional(boolean(key)) : std::nullopt;
}

qint64 JsonReader::integer(QStringView key) const {
    const auto value = present(key);
    const double number = value.toDouble();
    // Doubles hold integers exactly up to 2^53; anything else is not an integer we accept.
    if (!value.isDouble() || std::trunc(number) != number || std::abs(number) > 9007199254740992.0)
        throw FieldError(key.toString());
    return static_cast<qint64>(number);
}

std::optional<qint64> JsonReader::optionalInteger(QStringView key) const {
    return has(key) ? std::optional(integer(key)) : std::nullopt;
}

double JsonReader::number(QStringView key) const {
    const auto value = present(key);
    if (!value.isDouble())
        throw FieldError(key.toString());
    return value.toDouble();
}

std::optional<double> JsonReader::optionalNumber(QStringView key) const {
    return has(key) ? std::optional(number(key)) : std::nullopt;
}

QJsonObject JsonReader::object(QStringView key) const {
    const auto value = present(key);
    if (!value.isObject())
        throw FieldError(key.toString());
    return value.toObject();
}

std::optional<QJsonObject> JsonReader::optionalObject(QStringView key) const {
    return has(key) ? std::optional(object(key)) : std::nullopt;
}

QJsonArray JsonReader::array(QStringView key) const {
    const auto value = present(key);
    if (!value.isArray())
        throw FieldError(key.toString());
    return value.toArray();
}

std::optional<QJsonArray> JsonReader::optionalArray(QStringView key) const {
    return has(key) ? std::optional(array(key)) : std::nullopt;
}

void JsonReader::rejectUnknownKeys(std::initializer_list<QStringView> allowed) const {
    for (auto it = m_object.begin(); it != m_object.end(); ++it) {
        if (std::find(allowed.begin(), allowed.end(), it.key()) == allowed.end())
            throw FieldError(it.key());
    }
}

} // namespace kestrolan
