#include "scheduling/scheduled_task.h"

#include "scheduling/task_json.h"
#include "support/uuid_text.h"

namespace kestrolan {

QJsonObject ScheduledTask::toJson() const {
    QJsonObject object{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("name"), name},
        {QStringLiteral("prompt"), prompt},
        {QStringLiteral("cron"), cron.toJson()},
        {QStringLiteral("enabled"), enabled},
        {QStringLiteral("notify"), notify},
        {QStringLiteral("createdAt"), taskDateText(createdAt)},
    };
    if (agentID)
        object.insert(QStringLiteral("agentID"), uuidText(*agentID));
    if (model)
        object.insert(QStringLiteral("model"), *model);
    if (projectID)
        object.insert(QStringLiteral("projectID"), uuidText(*projectID));
    return object;
}

ScheduledTask ScheduledTask::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    return ScheduledTask{
        .id = uuidField(reader, u"id"),
        .name = reader.string(u"name"),
        .prompt = reader.string(u"prompt"),
        .agentID = optionalUuidField(reader, u"agentID"),
        .model = reader.optionalString(u"model"),
        .projectID = optionalUuidField(reader, u"projectID"),
        .cron = CronExpression::fromJson(object.value(u"cron")),
        .enabled = reader.boolean(u"enabled"),
        .notify = reader.boolean(u"notify"),
        .createdAt = taskDateField(reader, u"createdAt"),
    };
}

} // namespace kestrolan
