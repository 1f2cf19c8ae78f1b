#pragma once

#include <QString>
#include <QStringView>
#include <array>
#include <optional>
#include <utility>

namespace kestrolan {

// One table per enumeration gives both directions of its wire names, so a new case cannot be
// added to one direction and forgotten in the other.
template <typename Enum, std::size_t Count>
class EnumNames {
public:
    using Entry = std::pair<Enum, const char16_t*>;

    constexpr explicit EnumNames(std::array<Entry, Count> entries)
        : m_entries(entries) {}

    // Every value of the enumeration is in the table; a value outside it is a programming error.
    QString name(Enum value) const {
        for (const auto& [candidate, text] : m_entries) {
            if (candidate == value)
                return QString::fromUtf16(text);
        }
        qFatal("EnumNames: value missing from its table");
    }

    std::optional<Enum> value(QStringView text) const {
        for (const auto& [candidate, name] : m_entries) {
            if (text == QStringView(name))
                return candidate;
        }
        return std::nullopt;
    }

private:
    std::array<Entry, Count> m_entries;
};

template <typename Enum, std::size_t Count>
EnumNames(std::array<std::pair<Enum, const char16_t*>, Count>) -> EnumNames<Enum, Count>;

} // namespace kestrolan
