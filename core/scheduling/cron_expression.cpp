#include "scheduling/cron_expression.h"

#include "scheduling/cron_error.h"
#include "scheduling/schedule_preset.h"
#include "support/overloaded.h"

#include <date/tz.h>

namespace kestrolan {
namespace {

constexpr qsizetype maximumExpressionBytes = 4096;
// Searches give up after this many years without a match.
constexpr date::years searchSpan{8};

CronError fieldCountError() {
    return CronError::invalidExpression(
        QStringLiteral("Enter five fields: minute, hour, day, month, weekday."));
}

std::array<QStringView, 5> splitFields(QStringView text) {
    // Every UTF-16 unit is at least one UTF-8 byte, so only short texts need counting.
    if (text.size() > maximumExpressionBytes || text.toUtf8().size() > maximumExpressionBytes)
        throw fieldCountError();
    std::array<QStringView, 5> fields;
    size_t count = 0;
    qsizetype start = -1;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        const bool space = i == text.size() || text[i].isSpace();
        if (space && start >= 0) {
            if (count == fields.size())
                throw fieldCountError();
            fields[count++] = text.sliced(start, i - start);
            start = -1;
        } else if (!space && start < 0) {
            start = i;
        }
    }
    if (count != fields.size())
        throw fieldCountError();
    return fields;
}

date::local_days shiftedByYears(date::local_days day, date::years years) {
    date::year_month_day shifted = date::year_month_day(day) + years;
    // 29 February onto a common year lands on the 28th.
    if (!shifted.ok())
        shifted = date::year_month_day_last(shifted.year(), date::month_day_last(shifted.month()));
    return date::local_days(shifted);
}

// Where a wall time falls: its instant (the first one when the wall time repeats) or, for a wall
// time that a gap removes, the instant of that gap. Either way the result never decreases as
// the wall time grows, which lets a day's times be searched by bisection.
struct WallTime {
    std::chrono::sys_seconds instant;
    bool exists;
};

WallTime resolve(date::local_seconds wall, const date::time_zone* zone) {
    const date::local_info info = zone->get_info(wall);
    if (info.result == date::local_info::nonexistent)
        return {info.first.end, false};
    return {std::chrono::sys_seconds(wall.time_since_epoch()) - info.first.offset, true};
}

bool monthAdmitted(const CronExpression& cron, date::local_days day) {
    const date::year_month_day ymd(day);
    return cron.month().contains(static_cast<int>(static_cast<unsigned>(ymd.month())));
}

// The classic cron rule: when both day fields are restricted, either one admits the day. The
// month is checked by the caller.
bool dayMatches(const CronExpression& cron, date::local_days day) {
    const date::year_month_day ymd(day);
    const bool dayAdmitted =
        cron.dayOfMonth().contains(static_cast<int>(static_cast<unsigned>(ymd.day())));
    const bool weekdayAdmitted =
        cron.dayOfWeek().contains(static_cast<int>(date::weekday(day).c_encoding()));
    if (cron.dayOfMonth().unrestricted())
        return weekdayAdmitted;
    if (cron.dayOfWeek().unrestricted())
        return dayAdmitted;
    return dayAdmitted || weekdayAdmitted;
}

// The first index in [0, count) for which `before` fails; `before` must hold on a prefix.
// (std::ranges::partition_point over an iota view does not build with clang 14 and libstdc++ 12.)
template <typename Predicate>
size_t partitionPoint(size_t count, Predicate before) {
    size_t low = 0;
    size_t high = count;
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (before(middle))
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

QString clockTime(int hour, int minute) {
    const int twelveHour = hour % 12 == 0 ? 12 : hour % 12;
    return QString::asprintf("%d:%02d %s", twelveHour, minute, hour < 12 ? "AM" : "PM");
}

QString weekdayName(int day) {
    static const std::array<QString, 7> names{
        QStringLiteral("Sunday"),    QStringLiteral("Monday"),   QStringLiteral("Tuesday"),
        QStringLiteral("Wednesday"), QStringLiteral("Thursday"), QStringLiteral("Friday"),
        QStringLiteral("Saturday"),
    };
    return names.at(static_cast<size_t>(day));
}

} // namespace

CronExpression::CronExpression(QStringView text)
    : CronExpression(splitFields(text)) {}

CronExpression::CronExpression(const std::array<QStringView, 5>& fields)
    : m_expression(fields[0] + u' ' + fields[1] + u' ' + fields[2] + u' ' + fields[3] + u' ' +
                   fields[4])
    , m_minute(CronField::parse(fields[0], CronField::Kind::minute))
    , m_hour(CronField::parse(fields[1], CronField::Kind::hour))
    , m_dayOfMonth(CronField::parse(fields[2], CronField::Kind::dayOfMonth))
    , m_month(CronField::parse(fields[3], CronField::Kind::month))
    , m_dayOfWeek(CronField::parse(fields[4], CronField::Kind::dayOfWeek)) {
    m_times.reserve(static_cast<size_t>(m_hour.count() * m_minute.count()));
    for (int h : m_hour.values()) {
        for (int m : m_minute.values())
            m_times.push_back(static_cast<std::uint16_t>(h * 60 + m));
    }
}

CronExpression CronExpression::fromJson(const QJsonValue& value) {
    if (!value.isString())
        throw fieldCountError();
    return CronExpression(value.toString());
}

std::chrono::sys_seconds CronExpression::nextFire(std::chrono::sys_seconds after,
                                                  const date::time_zone* zone) const {
    const date::local_days first = date::floor<date::days>(zone->to_local(after));
    const date::local_days limit = shiftedByYears(first, searchSpan);
    const auto at = [&](date::local_days day, size_t index) {
        return resolve(day + std::chrono::minutes(m_times[index]), zone);
    };
    for (date::local_days day = first; day <= limit; day += date::days(1)) {
        if (!monthAdmitted(*this, day)) {
            // Straight to the last day of this month; the loop steps into the next.
            const date::year_month_day ymd(day);
            day = date::local_days(ymd.year() / ymd.month() / date::last);
            continue;
        }
        if (!dayMatches(*this, day))
            continue;
        // Later days start past `after` as a rule; bisect only when the first time does not.
        size_t index = 0;
        if (at(day, 0).instant <= after)
            index = partitionPoint(m_times.size(),
                                   [&](size_t i) { return at(day, i).instant <= after; });
        for (; index < m_times.size(); ++index) {
            if (const WallTime time = at(day, index); time.exists)
                return time.instant;
        }
    }
    throw CronError::noNextFire();
}

std::chrono::sys_seconds CronExpression::mostRecentFire(std::chrono::sys_seconds onOrBefore,
                                                        const date::time_zone* zone) const {
    const date::local_days first = date::floor<date::days>(zone->to_local(onOrBefore));
    const date::local_days limit = shiftedByYears(first, -searchSpan);
    const auto at = [&](date::local_days day, size_t index) {
        return resolve(day + std::chrono::minutes(m_times[index]), zone);
    };
    for (date::local_days day = first; day >= limit; day -= date::days(1)) {
        if (!monthAdmitted(*this, day)) {
            const date::year_month_day ymd(day);
            day = date::local_days(ymd.year() / ymd.month() / 1);
            continue;
        }
        if (!dayMatches(*this, day))
            continue;
        size_t end = m_times.size();
        if (at(day, end - 1).instant > onOrBefore)
            end = partitionPoint(m_times.size(),
                                 [&](size_t i) { return at(day, i).instant <= onOrBefore; });
        for (; end > 0; --end) {
            if (const WallTime time = at(day, end - 1); time.exists)
                return time.instant;
        }
    }
    throw CronError::noNextFire();
}

QString CronExpression::humanDescription() const {
    return std::visit(Overloaded{
                          [](const SchedulePreset::Hourly& p) -> QString {
                              return QString::asprintf("Every hour at :%02d", p.minute);
                          },
                          [](const SchedulePreset::Daily& p) -> QString {
                              return u"Every day at " + clockTime(p.hour, p.minute);
                          },
                          [](const SchedulePreset::Weekdays& p) -> QString {
                              return u"Every weekday at " + clockTime(p.hour, p.minute);
                          },
                          [](const SchedulePreset::Weekly& p) -> QString {
                              return u"Every " + weekdayName(p.day) + u" at " +
                                     clockTime(p.hour, p.minute);
                          },
                          [this](const SchedulePreset::Custom&) -> QString {
                              const int minute = m_minute.single();
                              const int hour = m_hour.single();
                              const int day = m_dayOfMonth.single();
                              if (minute >= 0 && hour >= 0 && day >= 0 && m_month.unrestricted() &&
                                  m_dayOfWeek.unrestricted())
                                  return QString::asprintf("At %02d:%02d on day %d of the month",
                                                           hour, minute, day);
                              return m_expression;
                          },
                      },
                      SchedulePreset(*this).value());
}

} // namespace kestrolan
