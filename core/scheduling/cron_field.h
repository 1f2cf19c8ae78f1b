#pragma once

#include <QHashFunctions>
#include <QString>
#include <QStringView>
#include <cstdint>
#include <functional>
#include <set>

namespace kestrolan {

// One of the five fields of a cron expression: the values it admits after expansion.
class CronField {
public:
    enum class Kind {
        minute,
        hour,
        dayOfMonth,
        month,
        dayOfWeek,
    };

    // Throws CronError::invalidExpression naming the field ("Invalid hour field in schedule.").
    static CronField parse(QStringView text, Kind kind);

    // Admitted values, ascending. The weekday field stores Sunday as 0 only.
    std::set<int> values() const;
    bool contains(int value) const { return value >= 0 && value < 64 && (m_mask >> value) & 1U; }
    int count() const;
    // The lone value of a field that admits exactly one; -1 otherwise.
    int single() const;
    // True exactly when the field's text was "*"; "*/1" admits the same values but is restricted.
    bool unrestricted() const { return m_unrestricted; }
    // Bit v set when v is admitted.
    std::uint64_t mask() const { return m_mask; }

    static QString label(Kind kind);

    bool operator==(const CronField&) const = default;

private:
    CronField(std::uint64_t mask, bool unrestricted);

    std::uint64_t m_mask = 0;
    bool m_unrestricted = false;
};

inline size_t qHash(const CronField& field, size_t seed = 0) {
    return qHashMulti(seed, field.mask(), field.unrestricted());
}

} // namespace kestrolan

template <>
struct std::hash<kestrolan::CronField> {
    size_t operator()(const kestrolan::CronField& field) const noexcept { return qHash(field); }
};
