#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <optional>
#include <stdexcept>

namespace kestrolan {

// Typed access to the fields of one JSON object. A missing required field or a value of the
// wrong type throws FieldError; callers turn that into their own error. JSON null reads as
// absent for optional fields.
class JsonReader {
public:
    class FieldError : public std::runtime_error {
    public:
        explicit FieldError(const QString& key);
        QString key;
    };

    explicit JsonReader(QJsonObject object);

    bool has(QStringView key) const;
    QString string(QStringView key) const;
    std::optional<QString> optionalString(QStringView key) const;
    bool boolean(QStringView key) const;
    std::optional<bool> optionalBoolean(QStringView key) const;
    qint64 integer(QStringView key) const;
    std::optional<qint64> optionalInteger(QStringView key) const;
    double number(QStringView key) const;
    std::optional<double> optionalNumber(QStringView key) const;
    QJsonObject object(QStringView key) const;
    std::optional<QJsonObject> optionalObject(QStringView key) const;
    QJsonArray array(QStringView key) const;
    std::optional<QJsonArray> optionalArray(QStringView key) const;

    // Fails when the object holds a key outside `allowed`.
    void rejectUnknownKeys(std::initializer_list<QStringView> allowed) const;

    const QJsonObject& json() const { return m_object; }

private:
    QJsonValue present(QStringView key) const;

    QJsonObject m_object;
};

} // namespace kestrolan
