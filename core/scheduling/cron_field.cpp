#include "scheduling/cron_field.h"

#include "scheduling/cron_error.h"

#include <array>
#include <bit>
#include <limits>
#include <optional>
#include <span>

namespace kestrolan {
namespace {

struct FieldRange {
    int minimum;
    int maximum;
    std::span<const QLatin1StringView> names; // names[i] stands for minimum + i
};

constexpr std::array<QLatin1StringView, 12> monthNames{
    QLatin1StringView("JAN"), QLatin1StringView("FEB"), QLatin1StringView("MAR"),
    QLatin1StringView("APR"), QLatin1StringView("MAY"), QLatin1StringView("JUN"),
    QLatin1StringView("JUL"), QLatin1StringView("AUG"), QLatin1StringView("SEP"),
    QLatin1StringView("OCT"), QLatin1StringView("NOV"), QLatin1StringView("DEC"),
};

constexpr std::array<QLatin1StringView, 7> weekdayNames{
    QLatin1StringView("SUN"), QLatin1StringView("MON"), QLatin1StringView("TUE"),
    QLatin1StringView("WED"), QLatin1StringView("THU"), QLatin1StringView("FRI"),
    QLatin1StringView("SAT"),
};

FieldRange rangeOf(CronField::Kind kind) {
    switch (kind) {
    case CronField::Kind::minute:
        return {0, 59, {}};
    case CronField::Kind::hour:
        return {0, 23, {}};
    case CronField::Kind::dayOfMonth:
        return {1, 31, {}};
    case CronField::Kind::month:
        return {1, 12, monthNames};
    case CronField::Kind::dayOfWeek:
        // 7 is another spelling of Sunday.
        return {0, 7, weekdayNames};
    }
    Q_UNREACHABLE();
    return {};
}

// A run of ASCII digits as a number; nullopt when empty, not all digits, or past int64.
std::optional<qint64> decimal(QStringView text) {
    if (text.isEmpty())
        return std::nullopt;
    qint64 value = 0;
    for (QChar c : text) {
        if (c < u'0' || c > u'9')
            return std::nullopt;
        const int digit = c.unicode() - u'0';
        if (value > (std::numeric_limits<qint64>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::optional<int> fieldValue(QStringView text, const FieldRange& range) {
    if (const auto number = decimal(text)) {
        if (*number < range.minimum || *number > range.maximum)
            return std::nullopt;
        return static_cast<int>(*number);
    }
    if (range.names.empty() || text.isEmpty())
        return std::nullopt;
    const QString upper = text.toString().toUpper();
    for (size_t i = 0; i < range.names.size(); ++i) {
        if (upper == range.names[i])
            return range.minimum + static_cast<int>(i);
    }
    return std::nullopt;
}

// The bits one comma-separated item admits; 0 when the item is malformed.
std::uint64_t itemMask(QStringView item, const FieldRange& range, bool weekday) {
    QStringView base = item;
    qint64 step = 1;
    bool stepped = false;
    if (const qsizetype slash = item.indexOf(u'/'); slash >= 0) {
        base = item.first(slash);
        const QStringView stepText = item.sliced(slash + 1);
        if (stepText.contains(u'/'))
            return 0;
        const auto parsed = decimal(stepText);
        if (!parsed || *parsed < 1)
            return 0;
        step = *parsed;
        stepped = true;
    }

    int start = 0;
    int end = 0;
    if (base == u"*") {
        start = range.minimum;
        end = range.maximum;
    } else if (const qsizetype dash = base.indexOf(u'-'); dash >= 0) {
        const QStringView upperText = base.sliced(dash + 1);
        if (upperText.contains(u'-'))
            return 0;
        const auto lower = fieldValue(base.first(dash), range);
        const auto upper = fieldValue(upperText, range);
        if (!lower || !upper || *upper < *lower)
            return 0;
        start = *lower;
        end = *upper;
    } else {
        const auto value = fieldValue(base, range);
        if (!value)
            return 0;
        start = *value;
        end = stepped ? range.maximum : *value;
    }

    std::uint64_t mask = 0;
    for (qint64 v = start; v <= end; v += step) {
        mask |= std::uint64_t{1} << (weekday && v == 7 ? 0 : v);
        if (end - v < step)
            break;
    }
    return mask;
}

} // namespace

CronField::CronField(std::uint64_t mask, bool unrestricted)
    : m_mask(mask)
    , m_unrestricted(unrestricted) {}

CronField CronField::parse(QStringView text, Kind kind) {
    const FieldRange range = rangeOf(kind);
    const bool weekday = kind == Kind::dayOfWeek;
    std::uint64_t mask = 0;
    for (QStringView item : text.tokenize(u',')) {
        const std::uint64_t admitted = itemMask(item, range, weekday);
        if (admitted == 0)
            throw CronError::invalidExpression(u"Invalid " + label(kind) + u" field in schedule.");
        mask |= admitted;
    }
    if (mask == 0)
        throw CronError::invalidExpression(u"Invalid " + label(kind) + u" field in schedule.");
    return CronField(mask, text == u"*");
}

std::set<int> CronField::values() const {
    std::set<int> result;
    for (std::uint64_t rest = m_mask; rest != 0; rest &= rest - 1)
        result.insert(std::countr_zero(rest));
    return result;
}

int CronField::count() const {
    return std::popcount(m_mask);
}

int CronField::single() const {
    return count() == 1 ? std::countr_zero(m_mask) : -1;
}

QString CronField::label(Kind kind) {
    switch (kind) {
    case Kind::minute:
        return QStringLiteral("minute");
    case Kind::hour:
        return QStringLiteral("hour");
    case Kind::dayOfMonth:
        return QStringLiteral("day of month");
    case Kind::month:
        return QStringLiteral("month");
    case Kind::dayOfWeek:
        return QStringLiteral("weekday");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace kestrolan
