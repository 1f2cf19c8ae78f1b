#include "conversation/round_charges.h"

#include "service/client_error.h"

#include <QtNumeric>

namespace kestrolan {

namespace {

constexpr quint64 millionthsPerDollar = 1'000'000;
constexpr qsizetype fractionDigits = 6;

// Only ASCII digits: QChar::isDigit would also take other scripts' digits.
bool isAsciiDigit(QChar c) {
    return c >= u'0' && c <= u'9';
}

std::optional<quint64> digitsValue(QStringView digits) {
    quint64 value = 0;
    for (const QChar c : digits) {
        if (!isAsciiDigit(c) || qMulOverflow(value, quint64{10}, &value) ||
            qAddOverflow(value, quint64(c.unicode() - u'0'), &value))
            return std::nullopt;
    }
    return value;
}

quint64 millionths(const QString& amount) {
    const auto point = amount.indexOf(u'.');
    const QStringView integer = QStringView(amount).left(point < 0 ? amount.size() : point);
    const QStringView fraction = point < 0 ? QStringView() : QStringView(amount).mid(point + 1);
    if (integer.isEmpty() ||
        (point >= 0 && (fraction.isEmpty() || fraction.size() > fractionDigits)))
        ClientError::refuse();
    const auto dollars = digitsValue(integer);
    auto parts = digitsValue(fraction);
    if (!dollars || !parts)
        ClientError::refuse();
    for (auto padding = fraction.size(); padding < fractionDigits; ++padding)
        *parts *= 10;
    quint64 total = 0;
    if (qMulOverflow(*dollars, millionthsPerDollar, &total) || qAddOverflow(total, *parts, &total))
        ClientError::refuse();
    return total;
}

} // namespace

void RoundCharges::append(const std::optional<BillingUsage>& billing) {
    using State = BillingUsage::State;
    if (!billing || billing->state == State::unresolved ||
        (billing->state == State::settled && !billing->chargedUSD)) {
        pending = true;
    } else if (billing->state == State::settled) {
        quint64 total = 0;
        if (qAddOverflow(totalMillionths, millionths(*billing->chargedUSD), &total))
            ClientError::refuse();
        totalMillionths = total;
    }
    ++rounds;
}

QString RoundCharges::chargedUSD() const {
    QString fraction = QStringLiteral("%1").arg(totalMillionths % millionthsPerDollar,
                                                fractionDigits, 10, QChar(u'0'));
    while (fraction.size() > 2 && fraction.endsWith(u'0'))
        fraction.chop(1);
    return QString::number(totalMillionths / millionthsPerDollar) + u'.' + fraction;
}

QList<SavedConversation::Meta> RoundCharges::metaLines() const {
    QList<SavedConversation::Meta> lines{{u"Total charged $" + chargedUSD(), false}};
    if (pending)
        lines.append(
            {QStringLiteral("Billing confirmation pending; see Activity before continuing."),
             true});
    else
        lines.append({QStringLiteral("Each inference round is billed separately."), false});
    return lines;
}

QString RoundCharges::chargeSummary(const std::optional<BillingUsage>& lastBilling) const {
    if (rounds <= 1) {
        if (lastBilling)
            return lastBilling->summary();
        return QStringLiteral("Billing confirmation not received; see Activity.");
    }
    return u"Total charged $" + chargedUSD() +
           (pending ? QStringLiteral(". Billing confirmation pending; see Activity.")
                    : QStringLiteral("."));
}

} // namespace kestrolan
