#include "api_exception.h"

namespace kestrolan::devservice {

ApiException::ApiException(int status, QString message, QString type, std::optional<QString> code,
                           std::optional<QString> param)
    : m_status(status)
    , m_message(std::move(message))
    , m_type(std::move(type))
    , m_code(std::move(code))
    , m_param(std::move(param))
    , m_what(m_message.toUtf8()) {}

ApiException ApiException::invalidRequest(QString message, std::optional<QString> param,
                                          QString code) {
    return ApiException(400, std::move(message), QStringLiteral("invalid_request_error"),
                        std::move(code), std::move(param));
}

ApiException ApiException::notFound(QString message, QString code) {
    return ApiException(404, std::move(message), QStringLiteral("invalid_request_error"),
                        std::move(code));
}

QJsonObject ApiException::error() const {
    const auto orNull = [](const std::optional<QString>& value) {
        return value ? QJsonValue(*value) : QJsonValue(QJsonValue::Null);
    };
    return QJsonObject{{QStringLiteral("message"), m_message},
                       {QStringLiteral("type"), m_type},
                       {QStringLiteral("code"), orNull(m_code)},
                       {QStringLiteral("param"), orNull(m_param)}};
}

QJsonObject ApiException::envelope() const {
    return QJsonObject{{QStringLiteral("error"), error()}};
}

ApiResponse ApiException::response() const {
    return ApiResponse::json(m_status, envelope());
}

} // namespace kestrolan::devservice
