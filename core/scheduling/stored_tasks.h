#pragma once

#include "scheduling/scheduled_task.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QUuid>
#include <map>

namespace kestrolan {

// The persisted task document: the tasks, the last firing time handled per task, and the runs
// the schedulers have claimed. JSON keys "tasks", "lastScheduledFire", "claimedRuns".
struct StoredTasks {
    // A firing taken by one scheduler before its run starts; no other scheduler runs it again.
    struct Claim {
        QUuid taskID;
        QDateTime scheduledFor;
        QDateTime claimedAt;
        bool operator==(const Claim&) const = default;
    };

    // Claims older than this are dropped; firings that old are never run again anyway.
    static constexpr auto claimLifetime = std::chrono::days(7);

    QList<ScheduledTask> tasks;
    std::map<QUuid, QDateTime> lastScheduledFire;
    QList<Claim> claimedRuns;

    bool operator==(const StoredTasks&) const = default;

    const ScheduledTask* task(const QUuid& id) const;

    // Adds the task, or replaces the one with its id. A new task, a changed schedule and a
    // paused task resumed all start counting firings from `now`, so none of them fires for a
    // time that passed before.
    void upsert(const ScheduledTask& task, const QDateTime& now);
    // Removes the task with its firing bookkeeping; false when there is none.
    bool remove(const QUuid& id);

    // Claims the firing unless it is claimed already, marks it handled, and drops stale claims.
    // Returns whether this caller won the firing.
    bool claim(const QUuid& taskID, const QDateTime& scheduledFor, const QDateTime& now);

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError or CronError for anything that is not such a document.
    static StoredTasks fromJson(const QJsonObject& object);
};

} // namespace kestrolan
