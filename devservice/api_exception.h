#pragma once

#include "api_response.h"

#include <QJsonObject>
#include <QString>
#include <exception>
#include <optional>

namespace kestrolan::devservice {

// A refusal that reaches the client as the error envelope
// {"error": {"message", "type", "code", "param"}} with its status.
class ApiException : public std::exception {
public:
    ApiException(int status, QString message, QString type, std::optional<QString> code = {},
                 std::optional<QString> param = {});

    static ApiException invalidRequest(QString message, std::optional<QString> param = {},
                                       QString code = QStringLiteral("invalid_request"));
    static ApiException notFound(QString message, QString code = QStringLiteral("not_found"));

    int status() const { return m_status; }
    const QString& message() const { return m_message; }
    const std::optional<QString>& code() const { return m_code; }

    const char* what() const noexcept override { return m_what.constData(); }

    QJsonObject error() const;
    QJsonObject envelope() const;
    ApiResponse response() const;

private:
    int m_status;
    QString m_message;
    QString m_type;
    std::optional<QString> m_code;
    std::optional<QString> m_param;
    QByteArray m_what;
};

} // namespace kestrolan::devservice
