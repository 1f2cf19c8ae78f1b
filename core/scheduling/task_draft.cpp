#include "scheduling/task_draft.h"

#include "scheduling/cron_error.h"
#include "support/enum_names.h"
#include "support/overloaded.h"

#include <algorithm>

namespace kestrolan {
namespace {

using Field = EditorValidationError::Field;

constexpr EnumNames cadenceNames(std::array{
    std::pair{TaskDraft::Cadence::hourly, u"hourly"},
    std::pair{TaskDraft::Cadence::daily, u"daily"},
    std::pair{TaskDraft::Cadence::weekdays, u"weekdays"},
    std::pair{TaskDraft::Cadence::weekly, u"weekly"},
    std::pair{TaskDraft::Cadence::custom, u"custom"},
});

bool isAvailable(const QList<CatalogModel>& catalog, const QString& model) {
    return std::any_of(catalog.begin(), catalog.end(), [&](const CatalogModel& entry) {
        return entry.id == model && entry.available;
    });
}

const Agent* findAgent(const QList<Agent>& agents, const std::optional<QUuid>& id) {
    if (!id)
        return nullptr;
    const auto found = std::find_if(agents.begin(), agents.end(),
                                    [&](const Agent& agent) { return agent.id == *id; });
    return found == agents.end() ? nullptr : &*found;
}

// Throws the draft's first broken rule; returns its schedule.
CronExpression check(const TaskDraft& draft, const QList<Agent>& agents,
                     const QList<CatalogModel>& catalog, std::chrono::sys_seconds now,
                     const date::time_zone* zone) {
    EditorValidationError::checkName(draft.name);
    if (draft.prompt.trimmed().isEmpty())
        throw EditorValidationError(Field::prompt, QStringLiteral("Enter a prompt."));
    if (draft.prompt.toUtf8().size() > TaskDraft::maximumPromptBytes)
        throw EditorValidationError(Field::prompt,
                                    QStringLiteral("Keep task prompts within 128 KiB."));
    const Agent* agent = draft.usesAgent ? findAgent(agents, draft.agentID) : nullptr;
    if (draft.usesAgent && !agent)
        throw EditorValidationError(Field::agent, QStringLiteral("Choose an agent."));
    if (!agent && !isAvailable(catalog, draft.model))
        throw EditorValidationError(Field::model, QStringLiteral("Choose an available model."));
    if (agent && !isAvailable(catalog, agent->model))
        throw EditorValidationError(Field::model,
                                    QStringLiteral("This agent’s model is unavailable."));
    try {
        CronExpression cron = draft.preset().cronExpression();
        cron.nextFire(now, zone);
        return cron;
    } catch (const CronError& error) {
        throw EditorValidationError(Field::schedule, error.description());
    }
}

} // namespace

TaskDraft TaskDraft::fromTask(const ScheduledTask& task) {
    TaskDraft draft{
        .id = task.id,
        .name = task.name,
        .prompt = task.prompt,
        .usesAgent = task.agentID.has_value(),
        .agentID = task.agentID,
        .model = task.model.value_or(QString()),
        .projectID = task.projectID,
        .customCron = task.cron.expression(),
        .enabled = task.enabled,
        .notify = task.notify,
        .createdAt = task.createdAt,
    };
    std::visit(Overloaded{
                   [&](const SchedulePreset::Hourly& p) {
                       draft.cadence = Cadence::hourly;
                       draft.minute = p.minute;
                   },
                   [&](const SchedulePreset::Daily& p) {
                       draft.cadence = Cadence::daily;
                       draft.hour = p.hour;
                       draft.minute = p.minute;
                   },
                   [&](const SchedulePreset::Weekdays& p) {
                       draft.cadence = Cadence::weekdays;
                       draft.hour = p.hour;
                       draft.minute = p.minute;
                   },
                   [&](const SchedulePreset::Weekly& p) {
                       draft.cadence = Cadence::weekly;
                       draft.weekday = p.day;
                       draft.hour = p.hour;
                       draft.minute = p.minute;
                   },
                   [&](const SchedulePreset::Custom&) { draft.cadence = Cadence::custom; },
               },
               SchedulePreset(task.cron).value());
    return draft;
}

SchedulePreset TaskDraft::preset() const {
    switch (cadence) {
    case Cadence::hourly:
        return SchedulePreset::hourly(minute);
    case Cadence::daily:
        return SchedulePreset::daily(hour, minute);
    case Cadence::weekdays:
        return SchedulePreset::weekdays(hour, minute);
    case Cadence::weekly:
        return SchedulePreset::weekly(weekday, hour, minute);
    case Cadence::custom:
        break;
    }
    return SchedulePreset::custom(customCron);
}

std::optional<EditorValidationError> TaskDraft::validate(const QList<Agent>& agents,
                                                         const QList<CatalogModel>& catalog,
                                                         std::chrono::sys_seconds now,
                                                         const date::time_zone* zone) const {
    try {
        check(*this, agents, catalog, now, zone);
    } catch (const EditorValidationError& error) {
        return error;
    }
    return std::nullopt;
}

ScheduledTask TaskDraft::task(const QList<Agent>& agents, const QList<CatalogModel>& catalog,
                              std::chrono::sys_seconds now, const date::time_zone* zone) const {
    CronExpression cron = check(*this, agents, catalog, now, zone);
    return ScheduledTask{
        .id = id,
        .name = name.trimmed(),
        .prompt = prompt,
        .agentID = usesAgent ? agentID : std::nullopt,
        .model = usesAgent ? std::nullopt : std::optional<QString>(model),
        .projectID = projectID,
        .cron = std::move(cron),
        .enabled = enabled,
        .notify = notify,
        .createdAt = createdAt,
    };
}

QString TaskDraft::toString(Cadence cadence) {
    return cadenceNames.name(cadence);
}

std::optional<TaskDraft::Cadence> TaskDraft::cadenceFromString(QStringView text) {
    return cadenceNames.value(text);
}

} // namespace kestrolan
