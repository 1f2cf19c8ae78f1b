#include "qstring_printer.h"
#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"

#include <QDateTime>
#include <QTimeZone>
#include <cstdlib>
#include <date/tz.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// Expected instants below were worked out by hand against `zdump -v` of the zones involved;
// they are written as local time with offset, and the offset pins the instant.
namespace kestrolan {
namespace {

using Fires = std::vector<std::string>;

std::chrono::sys_seconds instant(const char* iso) {
    const QDateTime parsed = QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODate);
    EXPECT_TRUE(parsed.isValid()) << iso;
    return std::chrono::sys_seconds(std::chrono::seconds(parsed.toSecsSinceEpoch()));
}

// Local time with offset, rendered through Qt's own time zone code rather than date/tz.
QString local(std::chrono::sys_seconds time, const char* zone) {
    const QDateTime at =
        QDateTime::fromSecsSinceEpoch(time.time_since_epoch().count(), QTimeZone(QByteArray(zone)));
    const int offset = at.offsetFromUtc();
    return at.toString(u"yyyy-MM-ddTHH:mm:ss") +
           QString::asprintf("%c%02d:%02d", offset < 0 ? '-' : '+', std::abs(offset) / 3600,
                             std::abs(offset) % 3600 / 60);
}

Fires nextFires(const char* expression, const char* zone, const char* after, int count) {
    const CronExpression cron(QString::fromLatin1(expression));
    const date::time_zone* tz = date::locate_zone(zone);
    Fires fires;
    std::chrono::sys_seconds cursor = instant(after);
    for (int i = 0; i < count; ++i) {
        cursor = cron.nextFire(cursor, tz);
        fires.push_back(local(cursor, zone).toStdString());
    }
    return fires;
}

Fires previousFires(const char* expression, const char* zone, const char* onOrBefore, int count) {
    const CronExpression cron(QString::fromLatin1(expression));
    const date::time_zone* tz = date::locate_zone(zone);
    Fires fires;
    std::chrono::sys_seconds cursor = instant(onOrBefore);
    for (int i = 0; i < count; ++i) {
        cursor = cron.mostRecentFire(cursor, tz);
        fires.push_back(local(cursor, zone).toStdString());
        cursor -= std::chrono::seconds(1);
    }
    return fires;
}

TEST(CronSearch, RendersLocalTimesWithOffsets) {
    // Guards the helper the other tests lean on.
    EXPECT_EQ(local(instant("2025-03-09T07:00:00Z"), "America/New_York"),
              u"2025-03-09T03:00:00-04:00");
    EXPECT_EQ(local(instant("2025-04-05T15:00:00Z"), "Australia/Lord_Howe"),
              u"2025-04-06T01:30:00+10:30");
}

TEST(CronSearch, NewYorkSpringForwardSkipsTheMissingHour) {
    // 2025-03-09: 01:59:59 EST is followed by 03:00:00 EDT.
    EXPECT_EQ(nextFires("30 2 * * *", "America/New_York", "2025-03-07T12:00:00-05:00", 3),
              (Fires{"2025-03-08T02:30:00-05:00", "2025-03-10T02:30:00-04:00",
                     "2025-03-11T02:30:00-04:00"}));
    EXPECT_EQ(nextFires("0 * * * *", "America/New_York", "2025-03-09T00:30:00-05:00", 3),
              (Fires{"2025-03-09T01:00:00-05:00", "2025-03-09T03:00:00-04:00",
                     "2025-03-09T04:00:00-04:00"}));
    EXPECT_EQ(nextFires("* * * * *", "America/New_York", "2025-03-09T01:58:30-05:00", 3),
              (Fires{"2025-03-09T01:59:00-05:00", "2025-03-09T03:00:00-04:00",
                     "2025-03-09T03:01:00-04:00"}));
    EXPECT_EQ(previousFires("30 2 * * *", "America/New_York", "2025-03-10T02:29:59-04:00", 2),
              (Fires{"2025-03-08T02:30:00-05:00", "2025-03-07T02:30:00-05:00"}));
    EXPECT_EQ(previousFires("* * * * *", "America/New_York", "2025-03-09T03:00:30-04:00", 3),
              (Fires{"2025-03-09T03:00:00-04:00", "2025-03-09T01:59:00-05:00",
                     "2025-03-09T01:58:00-05:00"}));
}

TEST(CronSearch, NewYorkFallBackFiresARepeatedTimeOnceAtItsFirstOccurrence) {
    // 2025-11-02: 01:59:59 EDT is followed by 01:00:00 EST.
    EXPECT_EQ(nextFires("30 1 * * *", "America/New_York", "2025-11-01T12:00:00-04:00", 2),
              (Fires{"2025-11-02T01:30:00-04:00", "2025-11-03T01:30:00-05:00"}));
    // Past the first 01:30, the second one is not a firing time.
    EXPECT_EQ(nextFires("30 1 * * *", "America/New_York", "2025-11-02T01:45:00-04:00", 1),
              (Fires{"2025-11-03T01:30:00-05:00"}));
    EXPECT_EQ(nextFires("*/20 * * * *", "America/New_York", "2025-11-02T00:50:00-04:00", 5),
              (Fires{"2025-11-02T01:00:00-04:00", "2025-11-02T01:20:00-04:00",
                     "2025-11-02T01:40:00-04:00", "2025-11-02T02:00:00-05:00",
                     "2025-11-02T02:20:00-05:00"}));
    EXPECT_EQ(nextFires("* * * * *", "America/New_York", "2025-11-02T01:58:30-04:00", 2),
              (Fires{"2025-11-02T01:59:00-04:00", "2025-11-02T02:00:00-05:00"}));
    // Looking back from inside the repeated hour finds the first pass through it.
    EXPECT_EQ(previousFires("30 1 * * *", "America/New_York", "2025-11-02T01:45:00-05:00", 2),
              (Fires{"2025-11-02T01:30:00-04:00", "2025-11-01T01:30:00-04:00"}));
    EXPECT_EQ(previousFires("* * * * *", "America/New_York", "2025-11-02T01:30:00-05:00", 2),
              (Fires{"2025-11-02T01:59:00-04:00", "2025-11-02T01:58:00-04:00"}));
}

TEST(CronSearch, BerlinAcrossBothChanges) {
    // 2025-03-30 02:00 CET jumps to 03:00 CEST; 2025-10-26 03:00 CEST falls back to 02:00 CET.
    EXPECT_EQ(nextFires("15 2 * * *", "Europe/Berlin", "2025-03-28T12:00:00+01:00", 2),
              (Fires{"2025-03-29T02:15:00+01:00", "2025-03-31T02:15:00+02:00"}));
    EXPECT_EQ(nextFires("30 2 * * 0", "Europe/Berlin", "2025-03-20T00:00:00+01:00", 2),
              (Fires{"2025-03-23T02:30:00+01:00", "2025-04-06T02:30:00+02:00"}));
    EXPECT_EQ(nextFires("30 2 * * 0", "Europe/Berlin", "2025-10-20T00:00:00+02:00", 2),
              (Fires{"2025-10-26T02:30:00+02:00", "2025-11-02T02:30:00+01:00"}));
    EXPECT_EQ(nextFires("0,30 2 * * *", "Europe/Berlin", "2025-10-25T12:00:00+02:00", 3),
              (Fires{"2025-10-26T02:00:00+02:00", "2025-10-26T02:30:00+02:00",
                     "2025-10-27T02:00:00+01:00"}));
    EXPECT_EQ(previousFires("0,30 2 * * *", "Europe/Berlin", "2025-10-26T02:45:00+01:00", 3),
              (Fires{"2025-10-26T02:30:00+02:00", "2025-10-26T02:00:00+02:00",
                     "2025-10-25T02:30:00+02:00"}));
}

TEST(CronSearch, LordHoweHalfHourShift) {
    // 2025-04-06: 01:59:59 +11:00 falls back to 01:30 +10:30.
    EXPECT_EQ(nextFires("*/15 1-2 * * *", "Australia/Lord_Howe", "2025-04-05T12:00:00+11:00", 9),
              (Fires{"2025-04-06T01:00:00+11:00", "2025-04-06T01:15:00+11:00",
                     "2025-04-06T01:30:00+11:00", "2025-04-06T01:45:00+11:00",
                     "2025-04-06T02:00:00+10:30", "2025-04-06T02:15:00+10:30",
                     "2025-04-06T02:30:00+10:30", "2025-04-06T02:45:00+10:30",
                     "2025-04-07T01:00:00+10:30"}));
    EXPECT_EQ(previousFires("45 1 * * *", "Australia/Lord_Howe", "2025-04-06T02:00:00+10:30", 1),
              (Fires{"2025-04-06T01:45:00+11:00"}));

    // 2025-10-05: 01:59:59 +10:30 jumps to 02:30 +11:00, so 02:00 to 02:29 never happen.
    EXPECT_EQ(nextFires("*/15 1-2 * * *", "Australia/Lord_Howe", "2025-10-04T12:00:00+10:30", 7),
              (Fires{"2025-10-05T01:00:00+10:30", "2025-10-05T01:15:00+10:30",
                     "2025-10-05T01:30:00+10:30", "2025-10-05T01:45:00+10:30",
                     "2025-10-05T02:30:00+11:00", "2025-10-05T02:45:00+11:00",
                     "2025-10-06T01:00:00+11:00"}));
    // A time in the gap does not move to the next valid time on that day.
    EXPECT_EQ(nextFires("0 2 * * *", "Australia/Lord_Howe", "2025-10-04T12:00:00+10:30", 1),
              (Fires{"2025-10-06T02:00:00+11:00"}));
}

TEST(CronSearch, SantiagoChangesAtMidnight) {
    // 2025-04-05 Saturday: 23:59:59 -03:00 falls back to 23:00 -04:00.
    EXPECT_EQ(nextFires("30 23 * * *", "America/Santiago", "2025-04-04T12:00:00-03:00", 3),
              (Fires{"2025-04-04T23:30:00-03:00", "2025-04-05T23:30:00-03:00",
                     "2025-04-06T23:30:00-04:00"}));
    EXPECT_EQ(nextFires("*/30 * * * *", "America/Santiago", "2025-04-05T22:45:00-03:00", 3),
              (Fires{"2025-04-05T23:00:00-03:00", "2025-04-05T23:30:00-03:00",
                     "2025-04-06T00:00:00-04:00"}));
    // 2025-09-07 Sunday: midnight -04:00 jumps to 01:00 -03:00; that day has no midnight.
    EXPECT_EQ(nextFires("0 0 * * *", "America/Santiago", "2025-09-05T12:00:00-04:00", 2),
              (Fires{"2025-09-06T00:00:00-04:00", "2025-09-08T00:00:00-03:00"}));
    EXPECT_EQ(nextFires("*/30 * * * *", "America/Santiago", "2025-09-06T23:15:00-04:00", 2),
              (Fires{"2025-09-06T23:30:00-04:00", "2025-09-07T01:00:00-03:00"}));
}

TEST(CronSearch, HavanaChangesAtMidnight) {
    // 2025-03-09: midnight CST jumps to 01:00 CDT. 2025-11-02: 00:59:59 CDT falls back to 00:00
    // CST.
    EXPECT_EQ(nextFires("0 0 * * *", "America/Havana", "2025-03-07T12:00:00-05:00", 2),
              (Fires{"2025-03-08T00:00:00-05:00", "2025-03-10T00:00:00-04:00"}));
    // Through the day that begins at 01:00.
    EXPECT_EQ(nextFires("0 0,1 * * *", "America/Havana", "2025-03-08T23:59:59-05:00", 3),
              (Fires{"2025-03-09T01:00:00-04:00", "2025-03-10T00:00:00-04:00",
                     "2025-03-10T01:00:00-04:00"}));
    EXPECT_EQ(previousFires("0 0 * * *", "America/Havana", "2025-03-09T12:00:00-04:00", 1),
              (Fires{"2025-03-08T00:00:00-05:00"}));
    EXPECT_EQ(nextFires("30 0 * * *", "America/Havana", "2025-11-01T12:00:00-04:00", 2),
              (Fires{"2025-11-02T00:30:00-04:00", "2025-11-03T00:30:00-05:00"}));
    EXPECT_EQ(nextFires("0,30 0 * * *", "America/Havana", "2025-11-02T00:00:00-05:00", 1),
              (Fires{"2025-11-03T00:00:00-05:00"}));
}

TEST(CronSearch, DayOfMonthOrWeekday) {
    // June 2025 starts on a Sunday; 13 June is a Friday, 13 July a Sunday.
    EXPECT_EQ(nextFires("0 12 13 * 5", "UTC", "2025-06-01T00:00:00Z", 8),
              (Fires{"2025-06-06T12:00:00+00:00", "2025-06-13T12:00:00+00:00",
                     "2025-06-20T12:00:00+00:00", "2025-06-27T12:00:00+00:00",
                     "2025-07-04T12:00:00+00:00", "2025-07-11T12:00:00+00:00",
                     "2025-07-13T12:00:00+00:00", "2025-07-18T12:00:00+00:00"}));
    EXPECT_EQ(nextFires("0 12 13 * *", "UTC", "2025-06-01T00:00:00Z", 3),
              (Fires{"2025-06-13T12:00:00+00:00", "2025-07-13T12:00:00+00:00",
                     "2025-08-13T12:00:00+00:00"}));
    EXPECT_EQ(nextFires("0 12 * * 5", "UTC", "2025-06-01T00:00:00Z", 3),
              (Fires{"2025-06-06T12:00:00+00:00", "2025-06-13T12:00:00+00:00",
                     "2025-06-20T12:00:00+00:00"}));
    // A restricted spelling of "every day" still takes part in the "or".
    EXPECT_EQ(nextFires("0 12 1-31 * 1", "UTC", "2025-06-01T12:00:00Z", 2),
              (Fires{"2025-06-02T12:00:00+00:00", "2025-06-03T12:00:00+00:00"}));
    // Sunday as 7 and as a name; the month restricts both day fields.
    EXPECT_EQ(nextFires("0 0 * * 7", "UTC", "2025-06-02T00:00:00Z", 1),
              (Fires{"2025-06-08T00:00:00+00:00"}));
    EXPECT_EQ(nextFires("0 0 * * sun", "UTC", "2025-06-02T00:00:00Z", 1),
              (Fires{"2025-06-08T00:00:00+00:00"}));
    EXPECT_EQ(nextFires("0 0 1 aug 1", "UTC", "2025-06-01T00:00:00Z", 3),
              (Fires{"2025-08-01T00:00:00+00:00", "2025-08-04T00:00:00+00:00",
                     "2025-08-11T00:00:00+00:00"}));
}

TEST(CronSearch, BoundsOfTheYearAndTheEightYearReach) {
    EXPECT_EQ(nextFires("59 23 31 12 *", "UTC", "2025-06-01T00:00:00Z", 2),
              (Fires{"2025-12-31T23:59:00+00:00", "2026-12-31T23:59:00+00:00"}));
    EXPECT_EQ(nextFires("* * * * *", "UTC", "2025-12-31T23:59:30Z", 2),
              (Fires{"2026-01-01T00:00:00+00:00", "2026-01-01T00:01:00+00:00"}));
    EXPECT_EQ(previousFires("* * * * *", "UTC", "2026-01-01T00:00:59Z", 2),
              (Fires{"2026-01-01T00:00:00+00:00", "2025-12-31T23:59:00+00:00"}));
    // 2100 is no leap year: the next 29 February after 2096 is exactly eight years on.
    EXPECT_EQ(nextFires("0 0 29 2 *", "UTC", "2096-02-29T00:00:00Z", 1),
              (Fires{"2104-02-29T00:00:00+00:00"}));
    EXPECT_EQ(previousFires("0 0 29 2 *", "UTC", "2104-02-28T23:59:59Z", 1),
              (Fires{"2096-02-29T00:00:00+00:00"}));
}

TEST(CronSearch, ExactFiringInstants) {
    const CronExpression cron(u"0 9 * * *");
    const date::time_zone* berlin = date::locate_zone("Europe/Berlin");
    const auto nine = instant("2025-06-10T09:00:00+02:00");
    EXPECT_EQ(cron.nextFire(nine, berlin), instant("2025-06-11T09:00:00+02:00"));
    EXPECT_EQ(cron.nextFire(nine - std::chrono::seconds(1), berlin), nine);
    EXPECT_EQ(cron.mostRecentFire(nine, berlin), nine);
    EXPECT_EQ(cron.mostRecentFire(nine - std::chrono::seconds(1), berlin),
              instant("2025-06-09T09:00:00+02:00"));
}

TEST(CronSearch, NoDateWithinEightYears) {
    const date::time_zone* zone = date::locate_zone("America/New_York");
    const auto now = instant("2025-06-01T00:00:00Z");
    for (const char16_t* text : {u"0 0 31 2 *", u"0 0 30 FEB *", u"0 0 31 4,6,9,11 *"}) {
        const CronExpression cron(text);
        for (const bool forward : {true, false}) {
            try {
                forward ? cron.nextFire(now, zone) : cron.mostRecentFire(now, zone);
                ADD_FAILURE() << "found a date for " << QString::fromUtf16(text).toStdString();
            } catch (const CronError& error) {
                EXPECT_EQ(error.kind(), CronError::Kind::noNextFire);
                EXPECT_EQ(error.description(), u"This schedule has no upcoming date.");
            }
        }
    }
}

} // namespace
} // namespace kestrolan
