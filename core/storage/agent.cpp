#include "storage/agent.h"

#include "scheduling/task_json.h"
#include "storage/editor_validation_error.h"
#include "support/json_reader.h"
#include "support/uuid_text.h"

#include <QRegularExpression>
#include <algorithm>

namespace kestrolan {
namespace {

using Field = EditorValidationError::Field;

// Plain decimal text only: no sign, exponent, "inf" or "nan".
bool isTemperature(const QString& text) {
    static const QRegularExpression pattern(QStringLiteral("^(?:[0-9]+(?:\\.[0-9]*)?|\\.[0-9]+)$"));
    if (!pattern.match(text).hasMatch())
        return false;
    bool ok = false;
    const double value = text.toDouble(&ok);
    return ok && value >= 0 && value <= 2;
}

void checkTemperature(const QString& temperature) {
    const QString trimmed = temperature.trimmed();
    if (!trimmed.isEmpty() && !isTemperature(trimmed))
        throw EditorValidationError(Field::temperature,
                                    QStringLiteral("Enter a temperature from 0 to 2."));
}

void checkModel(const QString& model, const QList<CatalogModel>& catalog) {
    const bool available = std::any_of(catalog.begin(), catalog.end(), [&](const auto& entry) {
        return entry.id == model && entry.available;
    });
    if (!available)
        throw EditorValidationError(Field::model, QStringLiteral("Choose an available model."));
}

} // namespace

void Agent::validate(const QList<CatalogModel>& catalog) const {
    EditorValidationError::checkName(name);
    EditorValidationError::checkInstructions(instructions);
    checkModel(model, catalog);
    checkTemperature(temperature);
}

void Agent::validateExceptModel() const {
    EditorValidationError::checkName(name);
    EditorValidationError::checkInstructions(instructions);
    checkTemperature(temperature);
}

std::optional<QString> Agent::temperatureValue() const {
    const QString trimmed = temperature.trimmed();
    return trimmed.isEmpty() ? std::nullopt : std::optional(trimmed);
}

TurnContext::Instructions Agent::turnInstructions() const {
    return {id, name, instructions.trimmed()};
}

QJsonObject Agent::toJson() const {
    return {{QStringLiteral("id"), uuidText(id)},
            {QStringLiteral("name"), name},
            {QStringLiteral("instructions"), instructions},
            {QStringLiteral("model"), model},
            {QStringLiteral("temperature"), temperature},
            {QStringLiteral("createdAt"), taskDateText(createdAt)}};
}

Agent Agent::fromJson(const QJsonObject& object) {
    const JsonReader json(object);
    json.rejectUnknownKeys(
        {u"id", u"name", u"instructions", u"model", u"temperature", u"createdAt"});
    return Agent{uuidField(json, u"id"),       json.string(u"name"),
                 json.string(u"instructions"), json.string(u"model"),
                 json.string(u"temperature"),  taskDateField(json, u"createdAt")};
}

} // namespace kestrolan
