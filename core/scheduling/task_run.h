#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// One run of a scheduled task for one of its firing times.
struct TaskRun {
    enum class Status { queued, running, succeeded, failed, skipped };

    // Runs kept per task by trim().
    static constexpr qsizetype maxRunsPerTask = 50;

    QUuid id;
    QUuid taskID;
    // The cron firing time this run belongs to.
    QDateTime scheduledFor;
    QDateTime startedAt;
    std::optional<QDateTime> finishedAt;
    Status status = Status::queued;
    // The saved chat that holds the result.
    std::optional<QUuid> chatID;
    // The start of the result, kept in memory only: never written, empty after a reload.
    std::optional<QString> preview;
    // Why the run failed or was skipped, as shown to the user.
    std::optional<QString> error;

    bool isPending() const { return status == Status::queued || status == Status::running; }

    bool operator==(const TaskRun&) const = default;

    // Everything but `preview`.
    QJsonObject toJson() const;
    // Throws JsonReader::FieldError for anything that is not a run.
    static TaskRun fromJson(const QJsonObject& object);

    static QString toString(Status status);
    static std::optional<Status> statusFromString(QStringView text);

    // The history as it is written: pending runs first, then finished ones, each newest first
    // (ties by id text); at most maxRunsPerTask per task. Runs of deleted tasks stay.
    static QList<TaskRun> trim(QList<TaskRun> runs);
};

} // namespace kestrolan
