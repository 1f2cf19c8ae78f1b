#include "account/catalog_formatting.h"

#include "account/usd_formatting.h"

#include <QLocale>

namespace kestrolan {

namespace {

// Whole units, then one truncated decimal digit unless it is zero, then the suffix.
QString compact(qint64 tokens, qint64 unit, QStringView suffix) {
    QString text = QString::number(tokens / unit);
    if (const qint64 tenth = (tokens % unit) / (unit / 10); tenth != 0)
        text += u'.' + QString::number(tenth);
    return text + suffix;
}

QString exactPrice(const std::optional<QString>& value) {
    return value ? u'$' + *value : QString(CatalogFormatting::notProvided);
}

} // namespace

QString CatalogFormatting::price(const std::optional<QString>& value) {
    if (!value || value->startsWith(u'-'))
        return notProvided;
    return USDFormatting::display(*value, false).value_or(notProvided);
}

QString CatalogFormatting::context(std::optional<qint64> tokens) {
    if (!tokens || *tokens < 1)
        return notProvided;
    if (*tokens < 1000)
        return QString::number(*tokens);
    if (*tokens <= 999'999)
        return compact(*tokens, 1000, u"K");
    return compact(*tokens, 1'000'000, u"M");
}

QString CatalogFormatting::metadata(const CatalogModel& model) {
    const auto pricing = model.pricing.value_or(CatalogModel::Pricing{});
    return price(pricing.inputUSDPerMTok) % u" in · " % price(pricing.outputUSDPerMTok) %
           u" out per 1M tokens · " % context(model.contextTokens) % u" context";
}

QString CatalogFormatting::exactMetadata(const CatalogModel& model) {
    const auto pricing = model.pricing.value_or(CatalogModel::Pricing{});
    const QString size =
        model.contextTokens
            ? QLocale(QLocale::English, QLocale::UnitedStates).toString(*model.contextTokens)
            : QString(notProvided);
    return exactPrice(pricing.inputUSDPerMTok) % u" input · " %
           exactPrice(pricing.outputUSDPerMTok) % u" output per 1M tokens · " % size %
           u" context tokens";
}

} // namespace kestrolan
