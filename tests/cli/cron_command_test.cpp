#include <QDateTime>
#include <QProcess>
#include <QProcessEnvironment>
#include <gtest/gtest.h>
#include <string>

// kestrolan-cli runs as a real process; its output is compared byte for byte.
namespace {

struct Result {
    int exitCode = -1;
    std::string out;
    std::string err;
};

Result cli(const QStringList& arguments, const QString& tz = QStringLiteral("UTC")) {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TZ"), tz);
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(KESTROLAN_CLI_PATH), arguments);
    EXPECT_TRUE(process.waitForFinished(30000)) << "kestrolan-cli did not finish";
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    return {process.exitCode(), process.readAllStandardOutput().toStdString(),
            process.readAllStandardError().toStdString()};
}

QStringList explain(std::initializer_list<const char*> rest) {
    QStringList arguments{QStringLiteral("cron"), QStringLiteral("explain")};
    for (const char* argument : rest)
        arguments << QString::fromUtf8(argument);
    return arguments;
}

TEST(CronExplain, PrintsNormalFormDescriptionAndFireTimesInTheZone) {
    const Result lordHowe = cli(explain({"*/15  1-2 * * *", "--tz", "Australia/Lord_Howe",
                                         "--after", "2025-04-05T12:00:00+11:00", "--count", "6"}));
    EXPECT_EQ(lordHowe.exitCode, 0);
    EXPECT_EQ(lordHowe.err, "");
    EXPECT_EQ(lordHowe.out, "Expression: */15 1-2 * * *\n"
                            "Description: */15 1-2 * * *\n"
                            "Time zone: Australia/Lord_Howe\n"
                            "Next 6 fire times:\n"
                            "2025-04-06T01:00:00+11:00\n"
                            "2025-04-06T01:15:00+11:00\n"
                            "2025-04-06T01:30:00+11:00\n"
                            "2025-04-06T01:45:00+11:00\n"
                            "2025-04-06T02:00:00+10:30\n"
                            "2025-04-06T02:15:00+10:30\n");

    // Five by default; options also take the --name=value form.
    const Result weekdays =
        cli(explain({"0 9 * * mon-fri", "--tz=Europe/Berlin", "--after=2025-03-28T12:00:00Z"}));
    EXPECT_EQ(weekdays.exitCode, 0);
    EXPECT_EQ(weekdays.out, "Expression: 0 9 * * mon-fri\n"
                            "Description: Every weekday at 9:00 AM\n"
                            "Time zone: Europe/Berlin\n"
                            "Next 5 fire times:\n"
                            "2025-03-31T09:00:00+02:00\n"
                            "2025-04-01T09:00:00+02:00\n"
                            "2025-04-02T09:00:00+02:00\n"
                            "2025-04-03T09:00:00+02:00\n"
                            "2025-04-04T09:00:00+02:00\n");
}

TEST(CronExplain, DefaultsToTheSystemZoneAndReadsAfterWithoutOffsetInTheZone) {
    // TZ picks the system zone; 22:45 is a Santiago wall time, an hour before its clocks go back.
    const Result santiago =
        cli(explain({"*/30 * * * *", "--after", "2025-04-05T22:45:00", "--count", "3"}),
            QStringLiteral("America/Santiago"));
    EXPECT_EQ(santiago.exitCode, 0);
    EXPECT_EQ(santiago.err, "");
    EXPECT_EQ(santiago.out, "Expression: */30 * * * *\n"
                            "Description: */30 * * * *\n"
                            "Time zone: America/Santiago\n"
                            "Next 3 fire times:\n"
                            "2025-04-05T23:00:00-03:00\n"
                            "2025-04-05T23:30:00-03:00\n"
                            "2025-04-06T00:00:00-04:00\n");

    // --tz wins over the system zone, and the wall time is read in it.
    const Result newYork = cli(explain({"0 * * * *", "--tz", "America/New_York", "--after",
                                        "2025-03-09T00:30", "--count", "1"}),
                               QStringLiteral("Asia/Tokyo"));
    EXPECT_EQ(newYork.out, "Expression: 0 * * * *\n"
                           "Description: Every hour at :00\n"
                           "Time zone: America/New_York\n"
                           "Next fire time:\n"
                           "2025-03-09T01:00:00-05:00\n");
}

TEST(CronExplain, StartsFromNowWithoutAfter) {
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const Result result = cli(explain({"* * * * *", "--tz", "UTC", "--count", "1"}));
    ASSERT_EQ(result.exitCode, 0);
    const std::string last = result.out.substr(result.out.rfind('\n', result.out.size() - 2) + 1);
    const QDateTime fire =
        QDateTime::fromString(QString::fromStdString(last).trimmed(), Qt::ISODate);
    ASSERT_TRUE(fire.isValid()) << last;
    EXPECT_EQ(fire.time().second(), 0);
    EXPECT_GT(fire, before);
    EXPECT_LE(fire, before.addSecs(61));
}

TEST(CronExplain, FailuresPrintTheDescriptionAndExitOne) {
    const std::pair<const char*, const char*> cases[] = {
        {"0 0 32 * *", "Invalid day of month field in schedule.\n"},
        {"0 9 * *", "Enter five fields: minute, hour, day, month, weekday.\n"},
        {"0 9 * * FUNDAY", "Invalid weekday field in schedule.\n"},
        {"0 0 31 2 *", "This schedule has no upcoming date.\n"},
    };
    for (const auto& [expression, message] : cases) {
        const Result result = cli(explain({expression, "--after", "2025-01-01T00:00:00Z"}));
        EXPECT_EQ(result.exitCode, 1) << expression;
        EXPECT_EQ(result.out, "") << expression;
        EXPECT_EQ(result.err, message) << expression;
    }
}

TEST(CronExplain, CountIsLimitedToOneThousand) {
    const Result most =
        cli(explain({"* * * * *", "--after", "2025-01-01T00:00:00Z", "--count", "1000"}));
    EXPECT_EQ(most.exitCode, 0);
    EXPECT_EQ(std::count(most.out.begin(), most.out.end(), '\n'), 1004);
    EXPECT_NE(most.out.find("Next 1000 fire times:\n2025-01-01T00:01:00+00:00\n"),
              std::string::npos);
    EXPECT_TRUE(most.out.ends_with("2025-01-01T16:40:00+00:00\n"));

    for (const char* count : {"1001", "0", "-1", "five", ""}) {
        const Result refused = cli(explain({"* * * * *", "--count", count}));
        EXPECT_EQ(refused.exitCode, 2) << count;
        EXPECT_EQ(refused.out, "") << count;
        EXPECT_EQ(refused.err, "kestrolan-cli cron explain: --count takes a whole number from 1 "
                               "to 1000\nRun \"kestrolan-cli cron explain --help\" for usage.\n")
            << count;
    }
}

TEST(CronExplain, BadUsageExitsTwoWithNothingOnStdout) {
    const QStringList cases[] = {
        {},
        {QStringLiteral("frobnicate")},
        {QStringLiteral("cron")},
        {QStringLiteral("cron"), QStringLiteral("describe"), QStringLiteral("0 9 * * *")},
        explain({}),
        explain({"0", "9", "*", "*", "*"}),
        explain({"0 9 * * *", "--tz", "Mars/Olympus_Mons"}),
        explain({"0 9 * * *", "--tz"}),
        explain({"0 9 * * *", "--after", "yesterday"}),
        explain({"0 9 * * *", "--after", "2025-02-30T09:00:00Z"}),
        explain({"0 9 * * *", "--verbose"}),
    };
    for (const QStringList& arguments : cases) {
        const Result result = cli(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(u' ').toStdString();
        EXPECT_EQ(result.out, "") << arguments.join(u' ').toStdString();
        EXPECT_NE(result.err, "") << arguments.join(u' ').toStdString();
    }
    EXPECT_EQ(cli(explain({"0 9 * * *", "--tz", "Mars/Olympus_Mons"})).err,
              "kestrolan-cli cron explain: unknown time zone \"Mars/Olympus_Mons\"\n"
              "Run \"kestrolan-cli cron explain --help\" for usage.\n");
    EXPECT_EQ(cli({QStringLiteral("frobnicate")}).err,
              "kestrolan-cli: unknown command \"frobnicate\"\n"
              "Run \"kestrolan-cli --help\" for the list of commands.\n");
}

TEST(CronExplain, HelpAtEveryLevel) {
    const std::pair<QStringList, const char*> cases[] = {
        {{QStringLiteral("--help")}, "Usage: kestrolan-cli COMMAND"},
        {{QStringLiteral("-h")}, "Usage: kestrolan-cli COMMAND"},
        {{QStringLiteral("cron"), QStringLiteral("--help")},
         "Usage: kestrolan-cli cron SUBCOMMAND"},
        {explain({"--help"}), "Usage: kestrolan-cli cron explain EXPR"},
        {explain({"0 9 * * *", "-h"}), "Usage: kestrolan-cli cron explain EXPR"},
    };
    for (const auto& [arguments, heading] : cases) {
        const Result result = cli(arguments);
        EXPECT_EQ(result.exitCode, 0) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(result.out.starts_with(heading)) << result.out;
        EXPECT_EQ(result.err, "");
    }
    EXPECT_NE(cli({QStringLiteral("--help")}).out.find("\n  cron "), std::string::npos);
    EXPECT_NE(cli(explain({"--help"})).out.find("--after ISO8601"), std::string::npos);
}

} // namespace
