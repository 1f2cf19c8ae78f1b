#include "request_json.h"

#include "api_exception.h"

#include <QJsonDocument>
#include <cmath>

namespace kestrolan::devservice {

RequestJson RequestJson::parse(const QByteArray& body) {
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        throw ApiException::invalidRequest(QStringLiteral("The request body is not valid JSON: ") +
                                           error.errorString() + u'.');
    if (!document.isObject())
        throw ApiException::invalidRequest(
            QStringLiteral("The request body must be a JSON object."));
    return RequestJson(document.object());
}

RequestJson::RequestJson(QJsonObject object, QString path)
    : m_object(std::move(object))
    , m_path(std::move(path)) {}

QString RequestJson::field(const QString& key) const {
    return m_path.isEmpty() ? key : m_path + u'.' + key;
}

void RequestJson::wrongType(const QString& key, const char* expected) const {
    refuse(key, QStringLiteral("must be ") + QString::fromLatin1(expected) + u'.');
}

void RequestJson::rejectUnknownKeys(const QStringList& allowed) const {
    for (auto it = m_object.begin(); it != m_object.end(); ++it)
        if (!allowed.contains(it.key()))
            throw ApiException::invalidRequest(QStringLiteral("Unknown field \"") +
                                                   field(it.key()) + QStringLiteral("\"."),
                                               field(it.key()));
}

QString RequestJson::string(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        throw ApiException::invalidRequest(
            QStringLiteral("\"") + field(key) + QStringLiteral("\" is required."), field(key));
    if (!value.isString())
        wrongType(key, "a string");
    return value.toString();
}

std::optional<QString> RequestJson::optionalString(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isString())
        wrongType(key, "a string");
    return value.toString();
}

std::optional<bool> RequestJson::optionalBoolean(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isBool())
        wrongType(key, "true or false");
    return value.toBool();
}

std::optional<qint64> RequestJson::optionalInteger(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    const auto number = value.toDouble();
    // Integers beyond 2^53 are not exact in JSON numbers; nothing here needs them.
    if (!value.isDouble() || std::trunc(number) != number || std::fabs(number) > 9.0e15)
        wrongType(key, "an integer");
    return qint64(number);
}

std::optional<double> RequestJson::optionalNumber(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isDouble())
        wrongType(key, "a number");
    return value.toDouble();
}

std::optional<QJsonArray> RequestJson::optionalArray(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isArray())
        wrongType(key, "an array");
    return value.toArray();
}

std::optional<QJsonObject> RequestJson::optionalObject(const QString& key) const {
    const auto value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isObject())
        wrongType(key, "an object");
    return value.toObject();
}

QJsonArray RequestJson::array(const QString& key) const {
    const auto value = optionalArray(key);
    if (!value)
        throw ApiException::invalidRequest(
            QStringLiteral("\"") + field(key) + QStringLiteral("\" is required."), field(key));
    return *value;
}

void RequestJson::refuse(const QString& key, const QString& rule) const {
    throw ApiException::invalidRequest(u'"' + field(key) + QStringLiteral("\" ") + rule,
                                       field(key));
}

} // namespace kestrolan::devservice
