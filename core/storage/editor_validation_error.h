#pragma once

#include "error.h"

namespace kestrolan {

// A value an editor (project, agent, scheduled task) cannot save: the field to mark and the one
// message of the rule it broke, which is also the error's description.
class EditorValidationError : public Error {
public:
    enum class Field {
        name,
        instructions,
        prompt,
        agent,
        model,
        temperature,
        schedule,
        files,
    };

    EditorValidationError(Field field, QString message);

    Field field() const { return m_field; }
    QString message() const { return description(); }

    // The rules the editors share, each throwing the error of its field. A name counts after
    // trimming white space and line breaks: 1 to 200 characters (grapheme clusters) and at
    // most 800 UTF-8 bytes. Instructions: at most 32 KiB of UTF-8.
    static constexpr qsizetype maximumNameCharacters = 200;
    static constexpr qsizetype maximumNameBytes = 800;
    static constexpr qsizetype maximumInstructionsBytes = 32 * 1024;
    static void checkName(const QString& name);
    static void checkInstructions(const QString& instructions);

    bool operator==(const EditorValidationError& other) const {
        return m_field == other.m_field && description() == other.description();
    }

private:
    Field m_field;
};

} // namespace kestrolan
