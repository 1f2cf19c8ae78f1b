#include "service/api_error.h"

#include "support/json_reader.h"

#include <QJsonDocument>

namespace kestrolan {

APIError::APIError(QString message, std::optional<QString> type, std::optional<QString> code,
                   std::optional<QString> param)
    : Error(std::move(message))
    , m_type(std::move(type))
    , m_code(std::move(code))
    , m_param(std::move(param)) {}

bool APIError::operator==(const APIError& other) const {
    return message() == other.message() && m_type == other.m_type && m_code == other.m_code &&
           m_param == other.m_param;
}

QJsonObject APIError::toJson() const {
    QJsonObject object{{QStringLiteral("message"), message()}};
    if (m_type)
        object.insert(QStringLiteral("type"), *m_type);
    if (m_code)
        object.insert(QStringLiteral("code"), *m_code);
    if (m_param)
        object.insert(QStringLiteral("param"), *m_param);
    return object;
}

std::optional<APIError> APIError::fromJson(const QJsonObject& object) {
    try {
        const JsonReader reader(object);
        return APIError(reader.string(u"message"), reader.optionalString(u"type"),
                        reader.optionalString(u"code"), reader.optionalString(u"param"));
    } catch (const JsonReader::FieldError&) {
        return std::nullopt;
    }
}

std::optional<APIError> APIError::fromEnvelope(const QByteArray& body) {
    const auto document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return std::nullopt;
    const auto error = document.object().value(QLatin1StringView("error"));
    if (!error.isObject())
        return std::nullopt;
    return fromJson(error.toObject());
}

std::optional<APIError> APIError::fromErrorOrEnvelope(const QByteArray& body) {
    if (auto enveloped = fromEnvelope(body))
        return enveloped;
    const auto document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return std::nullopt;
    return fromJson(document.object());
}

} // namespace kestrolan
