#pragma once

#include "scheduling/cron_field.h"

#include <QJsonValue>
#include <QString>
#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

namespace date {
class time_zone;
}

namespace kestrolan {

// A five-field cron schedule: minute, hour, day of month, month, weekday. Searches run on the
// Gregorian calendar in a given time zone: a wall time that a daylight-saving gap removes does
// not fire that day, and a wall time that occurs twice fires at its first occurrence only.
class CronExpression {
public:
    // Throws CronError::invalidExpression.
    explicit CronExpression(QStringView text);

    // The five field texts as typed, joined by single spaces.
    const QString& expression() const { return m_expression; }
    const CronField& minute() const { return m_minute; }
    const CronField& hour() const { return m_hour; }
    const CronField& dayOfMonth() const { return m_dayOfMonth; }
    const CronField& month() const { return m_month; }
    const CronField& dayOfWeek() const { return m_dayOfWeek; }

    // The first firing time strictly after `after`. Throws CronError::noNextFire when none
    // falls within eight years.
    std::chrono::sys_seconds nextFire(std::chrono::sys_seconds after,
                                      const date::time_zone* zone) const;
    // The latest firing time at or before `onOrBefore`, looking back at most eight years.
    // Throws CronError::noNextFire.
    std::chrono::sys_seconds mostRecentFire(std::chrono::sys_seconds onOrBefore,
                                            const date::time_zone* zone) const;

    QString humanDescription() const;

    // One JSON string, the expression.
    QJsonValue toJson() const { return m_expression; }
    // Parses the string again; anything else, or an invalid text, throws CronError.
    static CronExpression fromJson(const QJsonValue& value);

    // The fields follow from the text, so the text alone decides equality.
    bool operator==(const CronExpression& other) const {
        return m_expression == other.m_expression;
    }

private:
    explicit CronExpression(const std::array<QStringView, 5>& fields);

    QString m_expression;
    CronField m_minute;
    CronField m_hour;
    CronField m_dayOfMonth;
    CronField m_month;
    CronField m_dayOfWeek;
    // Every admitted (hour, minute) as minutes after midnight, ascending.
    std::vector<std::uint16_t> m_times;
};

inline size_t qHash(const CronExpression& cron, size_t seed = 0) {
    return qHash(cron.expression(), seed);
}

} // namespace kestrolan

template <>
struct std::hash<kestrolan::CronExpression> {
    size_t operator()(const kestrolan::CronExpression& cron) const noexcept { return qHash(cron); }
};
