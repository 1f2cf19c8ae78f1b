#pragma once

#include "storage/local_privacy_error.h"
#include "support/json_reader.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QList>
#include <optional>

namespace kestrolan {

// Records kept as a JSON array of objects, each read with T::fromJson and written with
// T::toJson. Anything else throws JsonReader::FieldError (key empty for the document itself).
template <class T>
QList<T> listFromJson(const QJsonDocument& document) {
    if (!document.isArray())
        throw JsonReader::FieldError(QString());
    QList<T> values;
    for (const auto& element : document.array()) {
        if (!element.isObject())
            throw JsonReader::FieldError(QString());
        values.append(T::fromJson(element.toObject()));
    }
    return values;
}

// A sealed record's list: none when the record is absent. A record that opened but does not
// decode was not written by us: LocalPrivacyError(corrupt).
template <class T>
QList<T> listFromRecord(const std::optional<QJsonDocument>& document) {
    if (!document)
        return {};
    try {
        return listFromJson<T>(*document);
    } catch (const JsonReader::FieldError&) {
        throw LocalPrivacyError(LocalPrivacyError::Kind::corrupt);
    }
}

template <class T>
QJsonDocument listToJson(const QList<T>& values) {
    QJsonArray array;
    for (const auto& value : values)
        array.append(value.toJson());
    return QJsonDocument(array);
}

} // namespace kestrolan
