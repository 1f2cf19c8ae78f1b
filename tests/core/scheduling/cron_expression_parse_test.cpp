#include "qstring_printer.h"
#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>
#include <set>

namespace kestrolan {
namespace {

const QString fiveFields = QStringLiteral("Enter five fields: minute, hour, day, month, weekday.");

// The description of the CronError that parsing `text` throws; empty when it parses.
QString parseFailure(QStringView text) {
    try {
        CronExpression cron(text);
    } catch (const CronError& error) {
        EXPECT_EQ(error.kind(), CronError::Kind::invalidExpression)
            << text.toString().toStdString();
        return error.description();
    }
    return {};
}

std::set<int> weekdays(QStringView field) {
    return CronExpression(QString(u"0 0 * * " + field.toString())).dayOfWeek().values();
}

TEST(CronExpressionParse, NormalisesWhitespaceAndKeepsFieldsAsTyped) {
    const CronExpression spaced(u"0  9\t* * *");
    EXPECT_EQ(spaced.expression(), u"0 9 * * *");
    EXPECT_EQ(spaced, CronExpression(u"0 9 * * *"));

    const CronExpression wrapped(u"\n  15 8 * jan-Mar mon-FRI \r\n");
    EXPECT_EQ(wrapped.expression(), u"15 8 * jan-Mar mon-FRI");
    EXPECT_EQ(wrapped.month().values(), (std::set<int>{1, 2, 3}));
    EXPECT_EQ(wrapped.dayOfWeek().values(), (std::set<int>{1, 2, 3, 4, 5}));

    // Any Unicode space separates fields (U+3000 ideographic space, U+00A0).
    EXPECT_EQ(CronExpression(u"0\u30009\u00a0* * *").expression(), u"0 9 * * *");

    // Same values, different text: not the same expression.
    const CronExpression numeric(u"0 9 * * 1-5");
    const CronExpression named(u"0 9 * * MON-FRI");
    EXPECT_EQ(numeric.dayOfWeek(), named.dayOfWeek());
    EXPECT_NE(numeric, named);
    EXPECT_NE(qHash(numeric), qHash(named));
}

TEST(CronExpressionParse, NamesInAnyCaseAndSundayAsSevenOrZero) {
    EXPECT_EQ(weekdays(u"7"), (std::set<int>{0}));
    EXPECT_EQ(weekdays(u"0"), (std::set<int>{0}));
    EXPECT_EQ(CronExpression(u"0 0 * * 7").dayOfWeek(), CronExpression(u"0 0 * * 0").dayOfWeek());
    EXPECT_EQ(weekdays(u"5-7"), (std::set<int>{0, 5, 6}));
    EXPECT_EQ(weekdays(u"0-7"), (std::set<int>{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(weekdays(u"sun"), (std::set<int>{0}));
    EXPECT_EQ(weekdays(u"Sat,SUN,mOn"), (std::set<int>{0, 1, 6}));
    EXPECT_EQ(weekdays(u"fri-sat"), (std::set<int>{5, 6}));
    // The weekday range runs to 7, so a step from Monday reaches Sunday.
    EXPECT_EQ(weekdays(u"MON/2"), (std::set<int>{0, 1, 3, 5}));
    EXPECT_EQ(weekdays(u"*/2"), (std::set<int>{0, 2, 4, 6}));

    const CronExpression months(u"0 0 1 jan,Jul,DEC *");
    EXPECT_EQ(months.month().values(), (std::set<int>{1, 7, 12}));
    EXPECT_EQ(CronExpression(u"0 0 1 feb-apr *").month().values(), (std::set<int>{2, 3, 4}));
    EXPECT_EQ(CronExpression(u"0 0 1 JAN-12 *").month().count(), 12);
}

TEST(CronExpressionParse, StepsAndRangesAtTheirBounds) {
    EXPECT_EQ(CronExpression(u"5/15 * * * *").minute().values(), (std::set<int>{5, 20, 35, 50}));
    EXPECT_EQ(CronExpression(u"*/15 * * * *").minute().values(), (std::set<int>{0, 15, 30, 45}));
    EXPECT_EQ(CronExpression(u"10-30/7 * * * *").minute().values(), (std::set<int>{10, 17, 24}));
    EXPECT_EQ(CronExpression(u"0-59 * * * *").minute().count(), 60);
    EXPECT_EQ(CronExpression(u"59 * * * *").minute().values(), (std::set<int>{59}));
    EXPECT_EQ(CronExpression(u"59/1 * * * *").minute().values(), (std::set<int>{59}));
    EXPECT_EQ(CronExpression(u"0,59,0 * * * *").minute().values(), (std::set<int>{0, 59}));
    // A step past the range admits only the start, however large.
    EXPECT_EQ(CronExpression(u"*/60 * * * *").minute().values(), (std::set<int>{0}));
    EXPECT_EQ(CronExpression(u"7/9223372036854775807 * * * *").minute().values(),
              (std::set<int>{7}));
    EXPECT_EQ(CronExpression(u"0 */05 * * *").hour().values(), (std::set<int>{0, 5, 10, 15, 20}));

    const CronExpression bounds(u"0 0-23 1-31 1-12 0-6");
    EXPECT_EQ(bounds.hour().count(), 24);
    EXPECT_EQ(bounds.dayOfMonth().values().size(), 31U);
    EXPECT_EQ(*bounds.dayOfMonth().values().begin(), 1);
    EXPECT_EQ(*bounds.dayOfMonth().values().rbegin(), 31);
    EXPECT_EQ(bounds.month().count(), 12);
    EXPECT_EQ(bounds.dayOfWeek().count(), 7);
    EXPECT_EQ(CronExpression(u"0 23 31 12 7").dayOfMonth().values(), (std::set<int>{31}));

    // Only a bare "*" is unrestricted, even when another text admits every value.
    const CronExpression every(u"* */1 1-31 * 0-7");
    EXPECT_TRUE(every.minute().unrestricted());
    EXPECT_FALSE(every.hour().unrestricted());
    EXPECT_EQ(every.hour().count(), 24);
    EXPECT_FALSE(every.dayOfMonth().unrestricted());
    EXPECT_TRUE(every.month().unrestricted());
    EXPECT_FALSE(every.dayOfWeek().unrestricted());
}

TEST(CronExpressionParse, FieldErrorsNameTheFirstBadField) {
    const QString minute = QStringLiteral("Invalid minute field in schedule.");
    const QString hour = QStringLiteral("Invalid hour field in schedule.");
    const QString day = QStringLiteral("Invalid day of month field in schedule.");
    const QString month = QStringLiteral("Invalid month field in schedule.");
    const QString weekday = QStringLiteral("Invalid weekday field in schedule.");

    EXPECT_EQ(parseFailure(u"60 * * * *"), minute);
    EXPECT_EQ(parseFailure(u"0 24 * * *"), hour);
    EXPECT_EQ(parseFailure(u"0 0 0 * *"), day);
    EXPECT_EQ(parseFailure(u"0 0 32 * *"), day);
    EXPECT_EQ(parseFailure(u"0 0 1 0 *"), month);
    EXPECT_EQ(parseFailure(u"0 0 1 13 *"), month);
    EXPECT_EQ(parseFailure(u"0 0 * * 8"), weekday);
    // Field order decides, not severity.
    EXPECT_EQ(parseFailure(u"0 24 0 13 8"), hour);
    EXPECT_EQ(parseFailure(u"x 24 * * *"), minute);

    const std::initializer_list<const char16_t*> badMinutes = {
        u"*/0",
        u"0/0",
        u"*/",
        u"/5",
        u"*/-1",
        u"*/1/2",
        u"1-2-3",
        u"10-5",
        u"-5",
        u"5-",
        u"-",
        u",",
        u"1,",
        u",1",
        u"1,,2",
        u"**",
        u"*-5",
        u"+5",
        u"1.5",
        u"0x10",
        u"\u0663",
        u"MON",
        u"JAN",
        u"*/99999999999999999999",
        u"99999999999999999999",
    };
    for (const char16_t* field : badMinutes) {
        EXPECT_EQ(parseFailure(QString(QString::fromUtf16(field) + u" * * * *")), minute)
            << QString::fromUtf16(field).toStdString();
    }
    EXPECT_EQ(parseFailure(u"0 0 10-5 * *"), day);
    EXPECT_EQ(parseFailure(u"0 0 * JANUARY *"), month);
    EXPECT_EQ(parseFailure(u"0 0 * MON *"), month);
    EXPECT_EQ(parseFailure(u"0 0 * DEC-JAN *"), month);
    EXPECT_EQ(parseFailure(u"0 0 * * JAN"), weekday);
    EXPECT_EQ(parseFailure(u"0 0 * * Monday"), weekday);
    EXPECT_EQ(parseFailure(u"0 0 * * SAT-MON"), weekday);
    EXPECT_EQ(parseFailure(u"0 0 SUN * *"), day);
}

TEST(CronExpressionParse, FieldCountAndLengthErrors) {
    for (const char16_t* text :
         {u"", u"   \t\n", u"0 9 * *", u"0 9 * * * *", u"* * * * * 2025", u"0,9,*,*,*"}) {
        EXPECT_EQ(parseFailure(QString::fromUtf16(text)), fiveFields)
            << QString::fromUtf16(text).toStdString();
    }
    // The count check comes first: six fields with bad ones still ask for five.
    EXPECT_EQ(parseFailure(u"99 99 99 99 99 99"), fiveFields);

    // 4,096 UTF-8 bytes is the most accepted, counted in bytes rather than characters.
    const QString core = QStringLiteral("0 9 * * *");
    const QString atLimit = core + QString(4096 - core.size(), u' ');
    ASSERT_EQ(atLimit.toUtf8().size(), 4096);
    EXPECT_EQ(CronExpression(atLimit).expression(), core);
    EXPECT_EQ(parseFailure(QString(atLimit + u' ')), fiveFields);

    const QString wide(1366, QChar(0x3000)); // 4,098 bytes in 1,366 characters
    EXPECT_EQ(parseFailure(QString(core + wide)), fiveFields);
    const QString wideAtLimit = core + QString(1362, QChar(0x3000)) + u' ';
    ASSERT_EQ(wideAtLimit.toUtf8().size(), 4096);
    EXPECT_EQ(CronExpression(wideAtLimit).expression(), core);
}

TEST(CronExpressionParse, EncodesAsOneJsonStringAndParsesItAgain) {
    const CronExpression cron(u"*/5  9-17 * * mon-fri");
    const QJsonValue encoded = cron.toJson();
    ASSERT_TRUE(encoded.isString());
    EXPECT_EQ(encoded.toString(), u"*/5 9-17 * * mon-fri");

    const QByteArray document = QJsonDocument(QJsonObject{{QStringLiteral("cron"), encoded}})
                                    .toJson(QJsonDocument::Compact);
    EXPECT_EQ(document, R"({"cron":"*/5 9-17 * * mon-fri"})");
    const CronExpression decoded =
        CronExpression::fromJson(QJsonDocument::fromJson(document).object().value(u"cron"));
    EXPECT_EQ(decoded, cron);
    EXPECT_EQ(decoded.minute(), cron.minute());
    EXPECT_EQ(decoded.dayOfWeek(), cron.dayOfWeek());

    try {
        CronExpression::fromJson(QJsonValue(QStringLiteral("0 0 31 13 *")));
        ADD_FAILURE() << "an invalid expression decoded";
    } catch (const CronError& error) {
        EXPECT_EQ(error.description(), u"Invalid month field in schedule.");
    }
    for (const QJsonValue& notText : {QJsonValue(5), QJsonValue(), QJsonValue(QJsonObject{})}) {
        EXPECT_THROW(CronExpression::fromJson(notText), CronError);
    }
}

} // namespace
} // namespace kestrolan
