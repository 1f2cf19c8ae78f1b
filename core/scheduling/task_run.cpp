#include "scheduling/task_run.h"

#include "scheduling/task_json.h"
#include "support/enum_names.h"
#include "support/uuid_text.h"

#include <QHash>
#include <algorithm>

namespace kestrolan {
namespace {

constexpr EnumNames statusNames(std::array{
    std::pair{TaskRun::Status::queued, u"queued"},
    std::pair{TaskRun::Status::running, u"running"},
    std::pair{TaskRun::Status::succeeded, u"succeeded"},
    std::pair{TaskRun::Status::failed, u"failed"},
    std::pair{TaskRun::Status::skipped, u"skipped"},
});

bool historyOrder(const TaskRun& a, const TaskRun& b) {
    if (a.isPending() != b.isPending())
        return a.isPending();
    if (a.startedAt != b.startedAt)
        return a.startedAt > b.startedAt;
    return uuidText(a.id).toUpper() < uuidText(b.id).toUpper();
}

} // namespace

QString TaskRun::toString(Status status) {
    return statusNames.name(status);
}

std::optional<TaskRun::Status> TaskRun::statusFromString(QStringView text) {
    return statusNames.value(text);
}

QJsonObject TaskRun::toJson() const {
    QJsonObject object{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("taskID"), uuidText(taskID)},
        {QStringLiteral("scheduledFor"), taskDateText(scheduledFor)},
        {QStringLiteral("startedAt"), taskDateText(startedAt)},
        {QStringLiteral("status"), toString(status)},
    };
    if (finishedAt)
        object.insert(QStringLiteral("finishedAt"), taskDateText(*finishedAt));
    if (chatID)
        object.insert(QStringLiteral("chatID"), uuidText(*chatID));
    if (error)
        object.insert(QStringLiteral("error"), *error);
    return object;
}

TaskRun TaskRun::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    const auto status = statusFromString(reader.string(u"status"));
    if (!status)
        throw JsonReader::FieldError(QStringLiteral("status"));
    return TaskRun{
        .id = uuidField(reader, u"id"),
        .taskID = uuidField(reader, u"taskID"),
        .scheduledFor = taskDateField(reader, u"scheduledFor"),
        .startedAt = taskDateField(reader, u"startedAt"),
        .finishedAt = optionalTaskDateField(reader, u"finishedAt"),
        .status = *status,
        .chatID = optionalUuidField(reader, u"chatID"),
        .preview = std::nullopt,
        .error = reader.optionalString(u"error"),
    };
}

QList<TaskRun> TaskRun::trim(QList<TaskRun> runs) {
    std::stable_sort(runs.begin(), runs.end(), historyOrder);
    QHash<QUuid, qsizetype> kept;
    QList<TaskRun> result;
    result.reserve(runs.size());
    for (auto& run : runs) {
        qsizetype& count = kept[run.taskID];
        if (count >= maxRunsPerTask)
            continue;
        ++count;
        result.append(std::move(run));
    }
    return result;
}

} // namespace kestrolan
