#pragma once

#include "conversation/turn_context.h"
#include "storage/project_file.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

namespace kestrolan {

// A project: instructions and imported text files that a chat in the project sends as system
// text. The files are kept apart from the project (ProjectStore), so they are not part of it.
struct Project {
    static constexpr qsizetype maximumFiles = 50;

    QUuid id;
    QString name;
    QString instructions;
    QDateTime createdAt;
    QDateTime updatedAt;

    bool operator==(const Project&) const = default;

    // Throws EditorValidationError for the first broken rule: name, then instructions.
    void validate() const;
    // Throws EditorValidationError (field `files`) when there are more than 50 files or one
    // of them breaks the file rules.
    static void validateFiles(const QList<ProjectFile>& files);
    static void checkFileCount(qsizetype count);

    // What a chat in this project sends: the instructions, then each file labelled as untrusted
    // data.
    TurnContext::Instructions turnInstructions(const QList<ProjectFile>& files) const;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing, of the wrong type or unknown.
    static Project fromJson(const QJsonObject& object);
};

} // namespace kestrolan
