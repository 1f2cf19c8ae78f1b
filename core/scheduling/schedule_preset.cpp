#include "scheduling/schedule_preset.h"

#include "support/overloaded.h"

namespace kestrolan {
namespace {

SchedulePreset::Value classify(const CronExpression& cron) {
    const int minute = cron.minute().single();
    if (!cron.dayOfMonth().unrestricted() || !cron.month().unrestricted() || minute < 0)
        return SchedulePreset::Custom{cron.expression()};
    if (cron.hour().unrestricted() && cron.dayOfWeek().unrestricted())
        return SchedulePreset::Hourly{minute};
    const int hour = cron.hour().single();
    if (hour < 0)
        return SchedulePreset::Custom{cron.expression()};
    if (cron.dayOfWeek().unrestricted())
        return SchedulePreset::Daily{hour, minute};
    constexpr std::uint64_t mondayToFriday = 0b111110;
    if (cron.dayOfWeek().mask() == mondayToFriday)
        return SchedulePreset::Weekdays{hour, minute};
    if (const int day = cron.dayOfWeek().single(); day >= 0)
        return SchedulePreset::Weekly{day, hour, minute};
    return SchedulePreset::Custom{cron.expression()};
}

} // namespace

SchedulePreset::SchedulePreset(Value value)
    : m_value(std::move(value)) {}

SchedulePreset::SchedulePreset(const CronExpression& cron)
    : m_value(classify(cron)) {}

CronExpression SchedulePreset::cronExpression() const {
    const auto number = [](int n) { return QString::number(n); };
    const QString text = std::visit(
        Overloaded{
            [&](const Hourly& p) -> QString { return number(p.minute) + u" * * * *"; },
            [&](const Daily& p) -> QString {
                return number(p.minute) + u' ' + number(p.hour) + u" * * *";
            },
            [&](const Weekdays& p) -> QString {
                return number(p.minute) + u' ' + number(p.hour) + u" * * MON-FRI";
            },
            [&](const Weekly& p) -> QString {
                return number(p.minute) + u' ' + number(p.hour) + u" * * " + number(p.day);
            },
            [](const Custom& p) { return p.text; },
        },
        m_value);
    return CronExpression(text);
}

} // namespace kestrolan
