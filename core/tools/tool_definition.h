#pragma once

#include "tools/local_access_mode.h"
#include "tools/web_tool_settings.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <optional>
#include <utility>

namespace kestrolan {

// One tool offered to the model, in the JSON-schema shape of the chat request's "tools".
struct ToolDefinition {
    struct Property {
        QString type; // "string", "integer" or "boolean"
        QString description;
        bool operator==(const Property&) const = default;
    };

    struct Parameters {
        QString type = QStringLiteral("object");
        QMap<QString, Property> properties;
        QStringList required;
        bool additionalProperties = false;
        bool operator==(const Parameters&) const = default;
    };

    struct Function {
        QString name;
        QString description;
        Parameters parameters;
        bool operator==(const Function&) const = default;
    };

    QString type = QStringLiteral("function");
    Function function;

    bool operator==(const ToolDefinition&) const = default;

    QJsonObject toJson() const;

    // The one way definitions are built: `properties` maps each name to its type name.
    static ToolDefinition make(QString name, QString description,
                               const QList<std::pair<QString, QString>>& properties,
                               QStringList required);

    // Every tool, in the order in which tools are offered.
    static const QList<ToolDefinition>& all();
    static std::optional<ToolDefinition> named(QStringView name);

    // The local tools of an access mode.
    static QList<ToolDefinition> available(LocalAccessMode mode);
    // What a round offers: nothing for a model without tool calling; otherwise the local tools,
    // then the web tools the user switched on (also when local access is off).
    static QList<ToolDefinition> available(LocalAccessMode mode, const WebToolSettings& web,
                                           bool toolCalling);
};

} // namespace kestrolan
