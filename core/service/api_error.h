#pragma once

#include "error.h"

#include <QByteArray>
#include <QJsonObject>
#include <optional>

namespace kestrolan {

// The service's own error body; shown to the user in the service's words.
class APIError : public Error {
public:
    explicit APIError(QString message, std::optional<QString> type = {},
                      std::optional<QString> code = {}, std::optional<QString> param = {});

    QString message() const { return description(); }
    const std::optional<QString>& type() const { return m_type; }
    const std::optional<QString>& code() const { return m_code; }
    const std::optional<QString>& param() const { return m_param; }

    bool operator==(const APIError& other) const;

    QJsonObject toJson() const;
    static std::optional<APIError> fromJson(const QJsonObject& object);
    // A failed response's body: {"error": {...}}.
    static std::optional<APIError> fromEnvelope(const QByteArray& body);
    // A stream's error event carries either the envelope or the bare error.
    static std::optional<APIError> fromErrorOrEnvelope(const QByteArray& body);

private:
    std::optional<QString> m_type;
    std::optional<QString> m_code;
    std::optional<QString> m_param;
};

} // namespace kestrolan
