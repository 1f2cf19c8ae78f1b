#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <optional>

namespace kestrolan::devservice {

// Strict reading of a JSON request body. Every failure throws ApiException (400) naming the
// offending field in "param".
class RequestJson {
public:
    static RequestJson parse(const QByteArray& body);
    explicit RequestJson(QJsonObject object, QString path = {});

    void rejectUnknownKeys(const QStringList& allowed) const;

    QString string(const QString& key) const;
    std::optional<QString> optionalString(const QString& key) const;
    std::optional<bool> optionalBoolean(const QString& key) const;
    std::optional<qint64> optionalInteger(const QString& key) const;
    std::optional<double> optionalNumber(const QString& key) const;
    std::optional<QJsonArray> optionalArray(const QString& key) const;
    std::optional<QJsonObject> optionalObject(const QString& key) const;
    QJsonArray array(const QString& key) const;

    const QJsonObject& json() const { return m_object; }
    // "messages[2].content" style name of a field of this object.
    QString field(const QString& key) const;
    // Refuses the request over this field: "\"FIELD\" RULE", with the field as "param".
    [[noreturn]] void refuse(const QString& key, const QString& rule) const;

private:
    [[noreturn]] void wrongType(const QString& key, const char* expected) const;

    QJsonObject m_object;
    QString m_path;
};

} // namespace kestrolan::devservice
