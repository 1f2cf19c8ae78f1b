#pragma once

#include "scheduling/cron_expression.h"

#include <QString>
#include <variant>

namespace kestrolan {

// The schedule shapes the task editor offers, and any other expression as `Custom`.
class SchedulePreset {
public:
    struct Hourly {
        int minute;
        bool operator==(const Hourly&) const = default;
    };
    struct Daily {
        int hour;
        int minute;
        bool operator==(const Daily&) const = default;
    };
    struct Weekdays {
        int hour;
        int minute;
        bool operator==(const Weekdays&) const = default;
    };
    struct Weekly {
        int day; // 0 (Sunday) to 6 (Saturday)
        int hour;
        int minute;
        bool operator==(const Weekly&) const = default;
    };
    struct Custom {
        QString text;
        bool operator==(const Custom&) const = default;
    };
    using Value = std::variant<Hourly, Daily, Weekdays, Weekly, Custom>;

    static SchedulePreset hourly(int minute) { return SchedulePreset(Hourly{minute}); }
    static SchedulePreset daily(int hour, int minute) {
        return SchedulePreset(Daily{hour, minute});
    }
    static SchedulePreset weekdays(int hour, int minute) {
        return SchedulePreset(Weekdays{hour, minute});
    }
    static SchedulePreset weekly(int day, int hour, int minute) {
        return SchedulePreset(Weekly{day, hour, minute});
    }
    static SchedulePreset custom(QString text) { return SchedulePreset(Custom{std::move(text)}); }

    // Classifies an expression; shapes the editor cannot show become `Custom`.
    explicit SchedulePreset(const CronExpression& cron);

    const Value& value() const { return m_value; }

    // Builds the expression text and parses it. Throws CronError, for example for an hour of 24.
    CronExpression cronExpression() const;

    bool operator==(const SchedulePreset&) const = default;

private:
    explicit SchedulePreset(Value value);

    Value m_value;
};

} // namespace kestrolan
