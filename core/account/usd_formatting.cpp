#include "account/usd_formatting.h"

#include <QRegularExpression>

namespace kestrolan {

std::optional<QString> USDFormatting::display(const QString& value, bool precise) {
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("-?[0-9]+(?:\\.[0-9]{1,6})?")));
    if (!pattern.match(value).hasMatch())
        return std::nullopt;

    QStringView rest(value);
    const bool negative = rest.startsWith(u'-');
    if (negative)
        rest = rest.mid(1);

    const auto point = rest.indexOf(u'.');
    const QStringView integer = point < 0 ? rest : rest.left(point);
    QString fraction = point < 0 ? QString() : rest.mid(point + 1).toString();
    while (fraction.endsWith(u'0'))
        fraction.chop(1);

    const bool atLeastOneDollar = integer.contains(QRegularExpression(QStringLiteral("[1-9]")));
    if (!precise && fraction.size() >= 3 && atLeastOneDollar)
        fraction.truncate(2);
    while (fraction.size() < 2)
        fraction.append(u'0');

    QString grouped;
    grouped.reserve(integer.size() + integer.size() / 3);
    for (qsizetype i = 0; i < integer.size(); ++i) {
        if (i > 0 && (integer.size() - i) % 3 == 0)
            grouped.append(u',');
        grouped.append(integer[i]);
    }

    return (negative ? QStringLiteral("-$") : QStringLiteral("$")) + grouped + u'.' + fraction;
}

} // namespace kestrolan
