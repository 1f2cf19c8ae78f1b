#include "storage/editor_validation_error.h"

#include "support/json_text.h"

namespace kestrolan {

EditorValidationError::EditorValidationError(Field field, QString message)
    : Error(std::move(message))
    , m_field(field) {}

void EditorValidationError::checkName(const QString& name) {
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty())
        throw EditorValidationError(Field::name, QStringLiteral("Enter a name."));
    // The byte bound keeps a short run of very long clusters from passing as a short name.
    if (trimmed.toUtf8().size() > maximumNameBytes ||
        graphemeCount(trimmed) > maximumNameCharacters)
        throw EditorValidationError(Field::name,
                                    QStringLiteral("Keep the name under 201 characters."));
}

void EditorValidationError::checkInstructions(const QString& instructions) {
    if (instructions.toUtf8().size() > maximumInstructionsBytes)
        throw EditorValidationError(Field::instructions,
                                    QStringLiteral("Keep instructions within 32 KiB."));
}

} // namespace kestrolan
