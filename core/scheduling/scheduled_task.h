#pragma once

#include "scheduling/cron_expression.h"

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// A saved prompt that runs on a cron schedule. JSON keys are the field names; dates are
// ISO 8601 text in UTC with milliseconds.
struct ScheduledTask {
    QUuid id;
    QString name;
    // Sent as the user message of each run.
    QString prompt;
    // The agent whose instructions and model a run uses.
    std::optional<QUuid> agentID;
    // The model used when no agent is chosen.
    std::optional<QString> model;
    // The project whose context a run includes.
    std::optional<QUuid> projectID;
    CronExpression cron;
    // A paused task (false) never fires.
    bool enabled = true;
    // Post a desktop notification when a run finishes.
    bool notify = false;
    QDateTime createdAt;

    bool operator==(const ScheduledTask&) const = default;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError or CronError for anything that is not a task.
    static ScheduledTask fromJson(const QJsonObject& object);
};

} // namespace kestrolan
