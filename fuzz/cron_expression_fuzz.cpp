// Cron expressions come from users and from task records on disk. Beyond not crashing, every
// accepted text must survive a round trip and its searches must agree with each other.
//
//   build-fuzz/bin/fuzz-cron-expression -dict=fuzz/cron_expression.dict fuzz/corpus/cron_expression

#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"
#include "scheduling/schedule_preset.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <date/tz.h>

using kestrolan::CronError;
using kestrolan::CronExpression;
using kestrolan::CronField;
using kestrolan::SchedulePreset;

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

bool withinRange(const CronField& field, int minimum, int maximum) {
    const std::uint64_t allowed =
        ((std::uint64_t{1} << (maximum + 1)) - 1) & ~((std::uint64_t{1} << minimum) - 1);
    return field.mask() != 0 && (field.mask() & ~allowed) == 0;
}

bool firesAt(const CronExpression& cron, std::chrono::sys_seconds instant,
             const date::time_zone* zone) {
    const auto local = zone->to_local(instant);
    const auto day = date::floor<date::days>(local);
    const date::hh_mm_ss time(local - day);
    const date::year_month_day ymd(day);
    const int weekday = static_cast<int>(date::weekday(day).c_encoding());
    const bool dayOfMonth = cron.dayOfMonth().contains(static_cast<int>(unsigned(ymd.day())));
    const bool dayOfWeek = cron.dayOfWeek().contains(weekday);
    bool dayMatches = dayOfMonth || dayOfWeek;
    if (cron.dayOfMonth().unrestricted())
        dayMatches = dayOfWeek;
    else if (cron.dayOfWeek().unrestricted())
        dayMatches = dayOfMonth;
    return time.seconds().count() == 0 &&
           cron.minute().contains(static_cast<int>(time.minutes().count())) &&
           cron.hour().contains(static_cast<int>(time.hours().count())) &&
           cron.month().contains(static_cast<int>(unsigned(ymd.month()))) && dayMatches;
}

void checkSearches(const CronExpression& cron, const char* zoneName, std::int64_t afterSeconds) {
    const date::time_zone* zone = date::locate_zone(zoneName);
    const std::chrono::sys_seconds after{std::chrono::seconds(afterSeconds)};
    std::optional<std::chrono::sys_seconds> next;
    std::optional<std::chrono::sys_seconds> previous;
    try {
        next = cron.nextFire(after, zone);
    } catch (const CronError& error) {
        require(error.kind() == CronError::Kind::noNextFire, "next: unexpected error");
    }
    try {
        previous = cron.mostRecentFire(after, zone);
    } catch (const CronError& error) {
        require(error.kind() == CronError::Kind::noNextFire, "previous: unexpected error");
    }
    if (next) {
        require(*next > after, "next fire not after the start");
        require(firesAt(cron, *next, zone), "next fire outside the schedule");
        require(cron.mostRecentFire(*next, zone) == *next, "next fire is not its own latest");
    }
    if (previous) {
        require(*previous <= after, "previous fire after the start");
        require(firesAt(cron, *previous, zone), "previous fire outside the schedule");
    }
    if (next && previous) {
        require(cron.nextFire(*previous, zone) == *next, "a fire between previous and next");
        require(cron.mostRecentFire(*next - std::chrono::seconds(1), zone) == *previous,
                "a fire between next and previous");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    const QString text =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    std::optional<CronExpression> parsed;
    try {
        parsed.emplace(text);
    } catch (const CronError& error) {
        require(error.kind() == CronError::Kind::invalidExpression, "parse: unexpected error");
        const QString message = error.description();
        require(message == u"Enter five fields: minute, hour, day, month, weekday." ||
                    (message.startsWith(u"Invalid ") && message.endsWith(u" field in schedule.")),
                "parse: unknown message");
        return 0;
    }
    const CronExpression& cron = *parsed;

    require(withinRange(cron.minute(), 0, 59) && withinRange(cron.hour(), 0, 23) &&
                withinRange(cron.dayOfMonth(), 1, 31) && withinRange(cron.month(), 1, 12) &&
                withinRange(cron.dayOfWeek(), 0, 6),
            "field values out of range");
    const CronExpression again(cron.expression());
    require(again == cron && again.minute() == cron.minute() && again.hour() == cron.hour() &&
                again.dayOfMonth() == cron.dayOfMonth() && again.month() == cron.month() &&
                again.dayOfWeek() == cron.dayOfWeek(),
            "normal form parses differently");
    require(CronExpression::fromJson(cron.toJson()) == cron, "JSON round trip");

    const SchedulePreset preset(cron);
    const CronExpression rebuilt = preset.cronExpression();
    require(SchedulePreset(rebuilt) == preset, "preset round trip");
    if (std::holds_alternative<SchedulePreset::Custom>(preset.value()))
        require(rebuilt == cron, "custom preset changed the expression");
    require(!cron.humanDescription().isEmpty(), "empty description");

    // Ten minutes before Lord Howe's clocks go back half an hour, and New York's spring gap.
    checkSearches(cron, "Australia/Lord_Howe", 1743864600);
    checkSearches(cron, "America/New_York", 1741503000);
    return 0;
}
