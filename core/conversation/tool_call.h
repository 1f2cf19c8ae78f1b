#pragma once

#include <QJsonObject>
#include <QString>

namespace kestrolan {

// A tool call the model asked for; `arguments` stays the model's raw JSON text.
struct ToolCall {
    struct Function {
        QString name;
        QString arguments;
        bool operator==(const Function&) const = default;
    };

    QString id;
    QString type;
    Function function;

    bool operator==(const ToolCall&) const = default;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing or of the wrong type.
    static ToolCall fromJson(const QJsonObject& object);
};

} // namespace kestrolan
