#include "storage/project.h"

#include "scheduling/task_json.h"
#include "storage/editor_validation_error.h"
#include "support/json_reader.h"
#include "support/uuid_text.h"
#include "tools/text_attachments.h"

namespace kestrolan {

void Project::validate() const {
    EditorValidationError::checkName(name);
    EditorValidationError::checkInstructions(instructions);
}

void Project::checkFileCount(qsizetype count) {
    if (count > maximumFiles)
        throw EditorValidationError(EditorValidationError::Field::files,
                                    QStringLiteral("Keep a project to 50 files or fewer."));
}

void Project::validateFiles(const QList<ProjectFile>& files) {
    checkFileCount(files.size());
    for (const auto& file : files)
        file.validate();
}

TurnContext::Instructions Project::turnInstructions(const QList<ProjectFile>& files) const {
    QList<WireAttachment> labelled;
    labelled.reserve(files.size());
    for (const auto& file : files)
        labelled.append(WireAttachment{file.name, file.text});
    return {id, name, TextAttachments::userContent(instructions.trimmed(), labelled)};
}

QJsonObject Project::toJson() const {
    return {{QStringLiteral("id"), uuidText(id)},
            {QStringLiteral("name"), name},
            {QStringLiteral("instructions"), instructions},
            {QStringLiteral("createdAt"), taskDateText(createdAt)},
            {QStringLiteral("updatedAt"), taskDateText(updatedAt)}};
}

Project Project::fromJson(const QJsonObject& object) {
    const JsonReader json(object);
    json.rejectUnknownKeys({u"id", u"name", u"instructions", u"createdAt", u"updatedAt"});
    return Project{uuidField(json, u"id"), json.string(u"name"), json.string(u"instructions"),
                   taskDateField(json, u"createdAt"), taskDateField(json, u"updatedAt")};
}

} // namespace kestrolan
