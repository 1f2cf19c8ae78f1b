#pragma once

#include "account/catalog_model.h"
#include "scheduling/schedule_preset.h"
#include "scheduling/scheduled_task.h"
#include "storage/agent.h"
#include "storage/editor_validation_error.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUuid>
#include <chrono>
#include <optional>

namespace date {
class time_zone;
}

namespace kestrolan {

// The task editor's working copy. The cadence with hour, minute, weekday and customCron maps
// onto a SchedulePreset, whose expression becomes the task's schedule.
struct TaskDraft {
    enum class Cadence { hourly, daily, weekdays, weekly, custom };

    static constexpr qsizetype maximumPromptBytes = 131'072;

    QUuid id = QUuid::createUuid();
    QString name;
    QString prompt;
    bool usesAgent = false;
    std::optional<QUuid> agentID;
    QString model;
    std::optional<QUuid> projectID;
    Cadence cadence = Cadence::daily;
    int hour = 9;
    int minute = 0;
    // 0 (Sunday) to 6 (Saturday), for the weekly cadence.
    int weekday = 1;
    QString customCron;
    bool enabled = true;
    bool notify = false;
    QDateTime createdAt = QDateTime::currentDateTimeUtc();

    bool operator==(const TaskDraft&) const = default;

    // The editor's copy of an existing task; a schedule the presets cannot show is custom.
    static TaskDraft fromTask(const ScheduledTask& task);

    SchedulePreset preset() const;

    // The first rule the draft breaks, in the editor's order: name, prompt, agent, model,
    // schedule (which must have a firing time after `now` in `zone`). `agents` and `catalog`
    // are the current lists.
    std::optional<EditorValidationError> validate(const QList<Agent>& agents,
                                                  const QList<CatalogModel>& catalog,
                                                  std::chrono::sys_seconds now,
                                                  const date::time_zone* zone) const;

    // The task this draft saves as: trimmed name, the agent or the model, the schedule.
    // Throws EditorValidationError when validate() would report one.
    ScheduledTask task(const QList<Agent>& agents, const QList<CatalogModel>& catalog,
                       std::chrono::sys_seconds now, const date::time_zone* zone) const;

    static QString toString(Cadence cadence);
    static std::optional<Cadence> cadenceFromString(QStringView text);
};

} // namespace kestrolan
