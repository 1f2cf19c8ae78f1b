#pragma once

#include "account/catalog_model.h"
#include "conversation/turn_context.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// A named preset of instructions, model and temperature that a chat can take on.
struct Agent {
    QUuid id;
    QString name;
    QString instructions;
    QString model;
    // Decimal text from 0 to 2; empty means the model's default.
    QString temperature;
    QDateTime createdAt;

    bool operator==(const Agent&) const = default;

    // Throws EditorValidationError for the first broken rule: name, instructions, a model that
    // is not an available model of `catalog`, then the temperature.
    void validate(const QList<CatalogModel>& catalog) const;
    // The same rules but the model's availability, which a kept agent may have lost since.
    void validateExceptModel() const;

    // The temperature as sent (trimmed), nothing for the model's default. Only valid once
    // validated.
    std::optional<QString> temperatureValue() const;

    // What a chat with this agent sends as the agent's instructions.
    TurnContext::Instructions turnInstructions() const;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing, of the wrong type or unknown.
    static Agent fromJson(const QJsonObject& object);
};

} // namespace kestrolan
