#pragma once

#include <QString>
#include <QStringView>
#include <cstdint>
#include <optional>

namespace kestrolan::devservice {

// Amounts of US dollars as whole millionths. Text on the wire, integers inside; never floating
// point.
class Money {
public:
    static constexpr std::uint64_t perDollar = 1'000'000;
    // The database stores signed 64-bit integers; no amount may exceed that.
    static constexpr std::uint64_t maximum = 9'223'372'036'854'775'807ULL;

    // Digits with an optional point and one to six fraction digits ("25", "0.15", "1.000001").
    static std::optional<std::uint64_t> parse(QStringView text);
    // At least two fraction digits, trailing zeros beyond them dropped: "25.00", "0.000125".
    static QString format(std::uint64_t millionths);
    // What `tokens` cost at `pricePerMillionTokens` millionths of a dollar per million tokens,
    // rounded up to the next millionth. Empty on overflow.
    static std::optional<std::uint64_t> charge(std::uint64_t tokens,
                                               std::uint64_t pricePerMillionTokens);
    static std::optional<std::uint64_t> add(std::uint64_t a, std::uint64_t b);
};

} // namespace kestrolan::devservice
