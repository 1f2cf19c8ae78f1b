#include "money.h"

namespace kestrolan::devservice {

std::optional<std::uint64_t> Money::parse(QStringView text) {
    const auto point = text.indexOf(u'.');
    const auto whole = point < 0 ? text : text.first(point);
    const auto fraction = point < 0 ? QStringView() : text.sliced(point + 1);
    if (whole.isEmpty() || (point >= 0 && (fraction.isEmpty() || fraction.size() > 6)))
        return std::nullopt;

    std::uint64_t dollars = 0;
    for (const auto c : whole) {
        if (c < u'0' || c > u'9')
            return std::nullopt;
        if (__builtin_mul_overflow(dollars, 10u, &dollars) ||
            __builtin_add_overflow(dollars, std::uint64_t(c.unicode() - u'0'), &dollars))
            return std::nullopt;
    }
    std::uint64_t micros = 0;
    for (qsizetype i = 0; i < 6; ++i) {
        const auto c = i < fraction.size() ? fraction[i] : QChar(u'0');
        if (c < u'0' || c > u'9')
            return std::nullopt;
        micros = micros * 10 + std::uint64_t(c.unicode() - u'0');
    }
    std::uint64_t total = 0;
    if (__builtin_mul_overflow(dollars, perDollar, &total) ||
        __builtin_add_overflow(total, micros, &total) || total > maximum)
        return std::nullopt;
    return total;
}

QString Money::format(std::uint64_t millionths) {
    auto fraction = QString::number(millionths % perDollar).rightJustified(6, u'0');
    while (fraction.size() > 2 && fraction.endsWith(u'0'))
        fraction.chop(1);
    return QString::number(millionths / perDollar) + u'.' + fraction;
}

std::optional<std::uint64_t> Money::charge(std::uint64_t tokens,
                                           std::uint64_t pricePerMillionTokens) {
    std::uint64_t product = 0;
    if (__builtin_mul_overflow(tokens, pricePerMillionTokens, &product))
        return std::nullopt;
    const auto rounded = product / 1'000'000 + (product % 1'000'000 != 0 ? 1 : 0);
    if (rounded > maximum)
        return std::nullopt;
    return rounded;
}

std::optional<std::uint64_t> Money::add(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum) || sum > maximum)
        return std::nullopt;
    return sum;
}

} // namespace kestrolan::devservice
