#include "scheduling/stored_tasks.h"

#include "scheduling/task_json.h"
#include "support/uuid_text.h"

#include <QJsonArray>
#include <algorithm>

namespace kestrolan {

const ScheduledTask* StoredTasks::task(const QUuid& id) const {
    const auto found = std::find_if(tasks.cbegin(), tasks.cend(),
                                    [&](const ScheduledTask& task) { return task.id == id; });
    return found == tasks.cend() ? nullptr : &*found;
}

void StoredTasks::upsert(const ScheduledTask& task, const QDateTime& now) {
    const auto found = std::find_if(tasks.begin(), tasks.end(),
                                    [&](const ScheduledTask& held) { return held.id == task.id; });
    if (found == tasks.end()) {
        tasks.append(task);
        lastScheduledFire[task.id] = now.toUTC();
        return;
    }
    const bool restart = found->cron != task.cron || (!found->enabled && task.enabled);
    *found = task;
    if (restart) {
        // Never earlier than a firing already handled, should the clock have gone back.
        QDateTime& last = lastScheduledFire[task.id];
        if (!last.isValid() || last < now)
            last = now.toUTC();
    }
}

bool StoredTasks::remove(const QUuid& id) {
    const auto removed = tasks.removeIf([&](const ScheduledTask& task) { return task.id == id; });
    if (removed == 0)
        return false;
    lastScheduledFire.erase(id);
    claimedRuns.removeIf([&](const Claim& claim) { return claim.taskID == id; });
    return true;
}

bool StoredTasks::claim(const QUuid& taskID, const QDateTime& scheduledFor, const QDateTime& now) {
    const QDateTime oldest = now.addSecs(-std::chrono::seconds(claimLifetime).count());
    claimedRuns.removeIf([&](const Claim& claim) { return claim.claimedAt < oldest; });
    for (const auto& claim : claimedRuns) {
        if (claim.taskID == taskID && claim.scheduledFor == scheduledFor)
            return false;
    }
    claimedRuns.append(Claim{taskID, scheduledFor.toUTC(), now.toUTC()});
    QDateTime& last = lastScheduledFire[taskID];
    if (!last.isValid() || last < scheduledFor)
        last = scheduledFor.toUTC();
    return true;
}

QJsonObject StoredTasks::toJson() const {
    QJsonArray taskArray;
    for (const auto& task : tasks)
        taskArray.append(task.toJson());
    QJsonObject fires;
    for (const auto& [id, date] : lastScheduledFire)
        fires.insert(uuidText(id), taskDateText(date));
    QJsonArray claims;
    for (const auto& claim : claimedRuns) {
        claims.append(QJsonObject{
            {QStringLiteral("taskID"), uuidText(claim.taskID)},
            {QStringLiteral("scheduledFor"), taskDateText(claim.scheduledFor)},
            {QStringLiteral("claimedAt"), taskDateText(claim.claimedAt)},
        });
    }
    return QJsonObject{
        {QStringLiteral("tasks"), taskArray},
        {QStringLiteral("lastScheduledFire"), fires},
        {QStringLiteral("claimedRuns"), claims},
    };
}

StoredTasks StoredTasks::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    StoredTasks stored;
    for (const auto& value : reader.array(u"tasks")) {
        if (!value.isObject())
            throw JsonReader::FieldError(QStringLiteral("tasks"));
        stored.tasks.append(ScheduledTask::fromJson(value.toObject()));
    }
    const QJsonObject fires = reader.optionalObject(u"lastScheduledFire").value_or(QJsonObject());
    for (auto it = fires.begin(); it != fires.end(); ++it) {
        const auto id = uuidFromText(it.key());
        if (!id || !it.value().isString())
            throw JsonReader::FieldError(QStringLiteral("lastScheduledFire"));
        stored.lastScheduledFire[*id] =
            taskDateFromText(it.value().toString(), QStringLiteral("lastScheduledFire"));
    }
    for (const auto& value : reader.optionalArray(u"claimedRuns").value_or(QJsonArray())) {
        if (!value.isObject())
            throw JsonReader::FieldError(QStringLiteral("claimedRuns"));
        const JsonReader claim(value.toObject());
        stored.claimedRuns.append(Claim{uuidField(claim, u"taskID"),
                                        taskDateField(claim, u"scheduledFor"),
                                        taskDateField(claim, u"claimedAt")});
    }
    return stored;
}

} // namespace kestrolan
