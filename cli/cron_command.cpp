#include "cron_command.h"

#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QTimeZone>
#include <date/tz.h>
#include <optional>
#include <stdexcept>

namespace kestrolan::cli {
namespace {

const QString groupHelp = QStringLiteral(
    "Usage: kestrolan-cli cron SUBCOMMAND\n"
    "\n"
    "Subcommands:\n"
    "  explain   Show a schedule's normal form, its description and its next fire times\n"
    "\n"
    "Run \"kestrolan-cli cron explain --help\" for its options.");

const QString explainHelp = QStringLiteral(
    "Usage: kestrolan-cli cron explain EXPR [--tz ZONE] [--count N] [--after ISO8601]\n"
    "\n"
    "Prints the expression in normal form, its description, and its next fire times as\n"
    "ISO 8601 with the zone's offset.\n"
    "\n"
    "EXPR is one argument of five fields: minute, hour, day of month, month, weekday,\n"
    "for example \"0 9 * * MON-FRI\". Quote it so that the shell leaves the stars alone.\n"
    "\n"
    "Options:\n"
    "  --tz ZONE        time zone of the schedule, such as Europe/Berlin (default: the system's)\n"
    "  --count N        how many fire times to list, 1 to 1000 (default: 5)\n"
    "  --after ISO8601  list fire times after this instant (default: now); without an offset\n"
    "                   it is a wall time in ZONE\n"
    "  -h, --help       show this help");

const date::time_zone* findZone(const QString& name) {
    try {
        return date::locate_zone(name.toStdString());
    } catch (const std::runtime_error&) {
        return nullptr;
    }
}

// The zone the system runs in: TZ or /etc/localtime as Qt reads them, else UTC.
const date::time_zone* systemZone() {
    if (const date::time_zone* zone = findZone(QString::fromUtf8(QTimeZone::systemTimeZoneId())))
        return zone;
    try {
        return date::current_zone();
    } catch (const std::runtime_error&) {
        return date::locate_zone("Etc/UTC");
    }
}

// An ISO 8601 date and time; one without an offset is a wall time in `zone`, taken at its
// first occurrence when it repeats.
std::optional<std::chrono::sys_seconds> parseInstant(const QString& text,
                                                     const date::time_zone* zone) {
    const QDateTime parsed = QDateTime::fromString(text, Qt::ISODate);
    if (!parsed.isValid())
        return std::nullopt;
    if (parsed.timeSpec() != Qt::LocalTime)
        return std::chrono::sys_seconds(std::chrono::seconds(parsed.toSecsSinceEpoch()));
    // Read the fields as written, free of the system zone's own gaps.
    const QDateTime fields = QDateTime::fromString(text + u'Z', Qt::ISODate);
    if (!fields.isValid())
        return std::nullopt;
    const date::local_seconds wall{std::chrono::seconds(fields.toSecsSinceEpoch())};
    return zone->to_sys(wall, date::choose::earliest);
}

QString isoWithOffset(std::chrono::sys_seconds instant, const date::time_zone* zone) {
    return QString::fromStdString(date::format("%FT%T%Ez", date::zoned_seconds(zone, instant)));
}

} // namespace

QString CronCommand::name() const {
    return QStringLiteral("cron");
}

QString CronCommand::summary() const {
    return QStringLiteral("Check cron schedules and list their next fire times");
}

QCoro::Task<int> CronCommand::run(QStringList arguments) {
    if (arguments.isEmpty()) {
        console().err(groupHelp);
        co_return exitUsage;
    }
    const QString& word = arguments.first();
    if (word == u"--help" || word == u"-h") {
        console().out(groupHelp);
        co_return exitSuccess;
    }
    if (word == u"explain")
        co_return explain(arguments.mid(1));
    console().err(u"kestrolan-cli cron: unknown subcommand \"" + word + u"\"\n" + groupHelp);
    co_return exitUsage;
}

int CronCommand::usageError(const QString& message) const {
    console().err(u"kestrolan-cli cron explain: " + message +
                  u"\nRun \"kestrolan-cli cron explain --help\" for usage.");
    return exitUsage;
}

int CronCommand::explain(const QStringList& arguments) const {
    QCommandLineParser parser;
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    const QCommandLineOption zoneOption(QStringLiteral("tz"), QStringLiteral("Time zone."),
                                        QStringLiteral("ZONE"));
    const QCommandLineOption countOption(
        QStringLiteral("count"), QStringLiteral("Number of fire times."), QStringLiteral("N"));
    const QCommandLineOption afterOption(QStringLiteral("after"),
                                         QStringLiteral("Instant to start after."),
                                         QStringLiteral("ISO8601"));
    parser.addOptions({help, zoneOption, countOption, afterOption});
    if (!parser.parse(QStringList{QStringLiteral("explain")} + arguments))
        return usageError(parser.errorText());
    if (parser.isSet(help)) {
        console().out(explainHelp);
        return exitSuccess;
    }

    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1) {
        return usageError(QStringLiteral(
            "give the expression as one quoted argument, such as \"0 9 * * MON-FRI\""));
    }

    const date::time_zone* zone = systemZone();
    if (parser.isSet(zoneOption)) {
        zone = findZone(parser.value(zoneOption));
        if (!zone)
            return usageError(u"unknown time zone \"" + parser.value(zoneOption) + u'"');
    }

    int count = 5;
    if (parser.isSet(countOption)) {
        bool ok = false;
        count = parser.value(countOption).toInt(&ok);
        if (!ok || count < 1 || count > maximumCount)
            return usageError(u"--count takes a whole number from 1 to " +
                              QString::number(maximumCount));
    }

    std::chrono::sys_seconds after =
        std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    if (parser.isSet(afterOption)) {
        const auto parsed = parseInstant(parser.value(afterOption), zone);
        if (!parsed) {
            return usageError(QStringLiteral("--after takes an ISO 8601 date and time, such as "
                                             "2025-03-09T01:30:00-05:00"));
        }
        after = *parsed;
    }

    // Everything is worked out before anything is printed, so a failure prints no partial list.
    QStringList lines;
    try {
        const CronExpression cron(positional.first());
        lines << u"Expression: " + cron.expression();
        lines << u"Description: " + cron.humanDescription();
        lines << u"Time zone: " + QString::fromStdString(zone->name());
        lines << (count == 1 ? QStringLiteral("Next fire time:")
                             : u"Next " + QString::number(count) + u" fire times:");
        for (int i = 0; i < count; ++i) {
            after = cron.nextFire(after, zone);
            lines << isoWithOffset(after, zone);
        }
    } catch (const CronError& error) {
        console().err(error.description());
        return exitFailure;
    }
    console().out(lines.join(u'\n'));
    return exitSuccess;
}

} // namespace kestrolan::cli
