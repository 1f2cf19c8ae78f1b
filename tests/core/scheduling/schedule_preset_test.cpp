#include "qstring_printer.h"
#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"
#include "scheduling/schedule_preset.h"

#include <gtest/gtest.h>

namespace kestrolan {
namespace {

SchedulePreset classify(const char16_t* text) {
    return SchedulePreset(CronExpression(text));
}

QString describe(const char16_t* text) {
    return CronExpression(text).humanDescription();
}

QString presetFailure(const SchedulePreset& preset) {
    try {
        preset.cronExpression();
    } catch (const CronError& error) {
        return error.description();
    }
    return {};
}

TEST(SchedulePreset, ClassifiesTheShapesTheEditorOffers) {
    EXPECT_EQ(classify(u"0 * * * *"), SchedulePreset::hourly(0));
    EXPECT_EQ(classify(u"59 * * * *"), SchedulePreset::hourly(59));
    EXPECT_EQ(classify(u"5 0 * * *"), SchedulePreset::daily(0, 5));
    EXPECT_EQ(classify(u"0 9 * * 1-5"), SchedulePreset::weekdays(9, 0));
    EXPECT_EQ(classify(u"0 9 * * MON-FRI"), SchedulePreset::weekdays(9, 0));
    EXPECT_EQ(classify(u"0 9 * * mon-fri"), SchedulePreset::weekdays(9, 0));
    EXPECT_EQ(classify(u"0 9 * * 5,4,3,2,1"), SchedulePreset::weekdays(9, 0));
    EXPECT_EQ(classify(u"0 13 * * 0"), SchedulePreset::weekly(0, 13, 0));
    EXPECT_EQ(classify(u"0 13 * * 7"), SchedulePreset::weekly(0, 13, 0));
    EXPECT_EQ(classify(u"30 23 * * sat"), SchedulePreset::weekly(6, 23, 30));
    // Restricted fields that admit one value still count as that value.
    EXPECT_EQ(classify(u"0-0 */24 * * *"), SchedulePreset::daily(0, 0));

    for (const char16_t* custom : {u"*/1 * * * *", // every minute, but not a bare "*"
                                   u"* * * * *", u"0,30 * * * *", u"0 9 1 * *", u"0 9 * 1 *",
                                   u"0 9 1-31 * *", u"0 9 * * 1-4", u"0 9 * * 1-6", u"0 9,17 * * *",
                                   u"0 * * * 1", u"0 9-17 * * 1-5", u"0 9 * * 0,6"}) {
        EXPECT_EQ(classify(custom), SchedulePreset::custom(QString::fromUtf16(custom)))
            << QString::fromUtf16(custom).toStdString();
    }
    // The custom text is the normalised expression.
    EXPECT_EQ(classify(u" 0  9 1 * * "), SchedulePreset::custom(QStringLiteral("0 9 1 * *")));
}

TEST(SchedulePreset, BuildsItsExpression) {
    EXPECT_EQ(SchedulePreset::hourly(7).cronExpression().expression(), u"7 * * * *");
    EXPECT_EQ(SchedulePreset::daily(18, 45).cronExpression().expression(), u"45 18 * * *");
    EXPECT_EQ(SchedulePreset::weekdays(9, 0).cronExpression().expression(), u"0 9 * * MON-FRI");
    EXPECT_EQ(SchedulePreset::weekly(3, 6, 5).cronExpression().expression(), u"5 6 * * 3");
    EXPECT_EQ(SchedulePreset::custom(QStringLiteral("*/10  * * * *")).cronExpression().expression(),
              u"*/10 * * * *");

    // Every preset comes back as itself.
    for (const SchedulePreset& preset :
         {SchedulePreset::hourly(0), SchedulePreset::hourly(59), SchedulePreset::daily(0, 0),
          SchedulePreset::daily(23, 59), SchedulePreset::weekdays(12, 30),
          SchedulePreset::weekly(0, 0, 0), SchedulePreset::weekly(6, 23, 59)}) {
        EXPECT_EQ(SchedulePreset(preset.cronExpression()), preset);
    }

    EXPECT_EQ(presetFailure(SchedulePreset::hourly(60)), u"Invalid minute field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::hourly(-1)), u"Invalid minute field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::daily(24, 0)), u"Invalid hour field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::weekdays(9, 60)), u"Invalid minute field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::weekly(8, 9, 0)),
              u"Invalid weekday field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::weekly(-1, 9, 0)),
              u"Invalid weekday field in schedule.");
    EXPECT_EQ(presetFailure(SchedulePreset::custom(QStringLiteral("0 9 * *"))),
              u"Enter five fields: minute, hour, day, month, weekday.");
}

TEST(SchedulePreset, DescribesExpressionsForLists) {
    EXPECT_EQ(describe(u"0 * * * *"), u"Every hour at :00");
    EXPECT_EQ(describe(u"7 * * * *"), u"Every hour at :07");
    EXPECT_EQ(describe(u"5 0 * * *"), u"Every day at 12:05 AM");
    EXPECT_EQ(describe(u"59 11 * * *"), u"Every day at 11:59 AM");
    EXPECT_EQ(describe(u"0 12 * * *"), u"Every day at 12:00 PM");
    EXPECT_EQ(describe(u"30 23 * * *"), u"Every day at 11:30 PM");
    EXPECT_EQ(describe(u"0 9 * * mon-fri"), u"Every weekday at 9:00 AM");
    EXPECT_EQ(describe(u"0 13 * * 0"), u"Every Sunday at 1:00 PM");
    EXPECT_EQ(describe(u"15 6 * * 3"), u"Every Wednesday at 6:15 AM");
    EXPECT_EQ(describe(u"0 20 * * SAT"), u"Every Saturday at 8:00 PM");
    EXPECT_EQ(describe(u"30 8 15 * *"), u"At 08:30 on day 15 of the month");
    EXPECT_EQ(describe(u"0 0 1 * *"), u"At 00:00 on day 1 of the month");
    // Anything else shows the expression itself, as typed.
    EXPECT_EQ(describe(u"*/1  * * * *"), u"*/1 * * * *");
    EXPECT_EQ(describe(u"30 8 15 * 1"), u"30 8 15 * 1");
    EXPECT_EQ(describe(u"30 8 15 jan *"), u"30 8 15 jan *");
    EXPECT_EQ(describe(u"30 8 15,16 * *"), u"30 8 15,16 * *");
    EXPECT_EQ(describe(u"0 9 * * 1-4"), u"0 9 * * 1-4");
}

} // namespace
} // namespace kestrolan
