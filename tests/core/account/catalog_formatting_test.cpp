#include "account/catalog_formatting.h"
#include "account/model_picker_state.h"
#include "account/usd_formatting.h"

#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

std::optional<QString> usd(const char* value, bool precise = false) {
    return USDFormatting::display(QString::fromLatin1(value), precise);
}

CatalogModel model(const QString& id, bool available, const QString& name = {},
                   const QString& description = {}) {
    CatalogModel m;
    m.id = id;
    m.displayName = name.isEmpty() ? id : name;
    m.available = available;
    m.description = description;
    return m;
}

} // namespace

TEST(USDFormatting, FormatsDecimalTextWithoutRounding) {
    EXPECT_EQ(usd("1234.5"), u"$1,234.50");
    EXPECT_EQ(usd("0.000125"), u"$0.000125");
    EXPECT_EQ(usd("12.3456"), u"$12.34");
    EXPECT_EQ(usd("12.3456", true), u"$12.3456");
    EXPECT_EQ(usd("12.999"), u"$12.99"); // cut, not rounded
    EXPECT_EQ(usd("3"), u"$3.00");
    EXPECT_EQ(usd("-0.5"), u"-$0.50");
    EXPECT_EQ(usd("10.000"), u"$10.00");
    EXPECT_EQ(usd("0.100000"), u"$0.10");
    EXPECT_EQ(usd("1234567.891"), u"$1,234,567.89");
    EXPECT_EQ(usd("123456"), u"$123,456.00");
    EXPECT_EQ(usd("00.5"), u"$00.50"); // leading zeros kept as given
    EXPECT_EQ(usd("0001.555"), u"$0,001.55");
    EXPECT_EQ(usd("0.999999"), u"$0.999999"); // six digits: the limit
    // Seven fraction digits, or anything that is not plain decimal text, gives nothing.
    for (const char* bad : {"1.2345678", "0.0000001", "", "-", ".5", "5.", "1e3", "+1", "1,000",
                            " 1", "1 ", "1\n", "١٢", "$1", "--1"})
        EXPECT_EQ(usd(bad), std::nullopt) << bad;
}

TEST(CatalogFormatting, PricesContextAndMetadataLines) {
    EXPECT_EQ(CatalogFormatting::price(QStringLiteral("0.15")), u"$0.15");
    EXPECT_EQ(CatalogFormatting::price(QStringLiteral("0.0000001")), u"Not provided");
    EXPECT_EQ(CatalogFormatting::price(QStringLiteral("-1")), u"Not provided");
    EXPECT_EQ(CatalogFormatting::price(QStringLiteral("-0")), u"Not provided");
    EXPECT_EQ(CatalogFormatting::price(std::nullopt), u"Not provided");

    const auto context = [](std::optional<qint64> tokens) {
        return CatalogFormatting::context(tokens);
    };
    EXPECT_EQ(context(std::nullopt), u"Not provided");
    EXPECT_EQ(context(0), u"Not provided");
    EXPECT_EQ(context(-5), u"Not provided");
    EXPECT_EQ(context(1), u"1");
    EXPECT_EQ(context(999), u"999");
    EXPECT_EQ(context(1000), u"1K");
    EXPECT_EQ(context(1999), u"1.9K");
    EXPECT_EQ(context(128000), u"128K");
    EXPECT_EQ(context(131072), u"131K");
    EXPECT_EQ(context(999999), u"999.9K");
    EXPECT_EQ(context(1000000), u"1M");
    EXPECT_EQ(context(1048576), u"1M");
    EXPECT_EQ(context(1500000), u"1.5M");
    EXPECT_EQ(context(2000000000), u"2000M");

    auto m = model(QStringLiteral("m"), true);
    EXPECT_EQ(CatalogFormatting::metadata(m),
              u"Not provided in · Not provided out per 1M tokens · Not provided context");
    EXPECT_EQ(CatalogFormatting::exactMetadata(m), u"Not provided input · Not provided output "
                                                   u"per 1M tokens · Not provided context tokens");
    m.contextTokens = 128000;
    m.pricing = CatalogModel::Pricing{.inputUSDPerMTok = QStringLiteral("0.15"),
                                      .outputUSDPerMTok = QStringLiteral("0.600")};
    EXPECT_EQ(CatalogFormatting::metadata(m), u"$0.15 in · $0.60 out per 1M tokens · 128K context");
    EXPECT_EQ(CatalogFormatting::exactMetadata(m),
              u"$0.15 input · $0.600 output per 1M tokens · 128,000 context tokens");
}

TEST(ModelPickerState, FiltersIgnoringCaseAndDiacriticsAvailableFirst) {
    const QList<CatalogModel> models{
        model(QStringLiteral("u1"), false, QStringLiteral("Crème Large")),
        model(QStringLiteral("a1"), true, QStringLiteral("Basic"), QStringLiteral("cheap CRÈME")),
        model(QStringLiteral("u2"), false, QStringLiteral("Old")),
        model(QStringLiteral("a2"), true, QStringLiteral("Creme Small")),
    };
    ModelPickerState picker;
    const auto ids = [&] {
        QStringList list;
        for (const auto& m : picker.filtered(models))
            list.append(m.id);
        return list.join(u',');
    };
    EXPECT_EQ(ids(), u"a1,a2,u1,u2");
    picker.query = QStringLiteral("  creme\n");
    EXPECT_EQ(ids(), u"a1,a2,u1");
    picker.query = QStringLiteral("CRÉME");
    EXPECT_EQ(ids(), u"a1,a2,u1");
    picker.query = QStringLiteral("u2"); // identifiers are not searched
    EXPECT_EQ(ids(), u"");
}

TEST(ModelPickerState, KeyboardMovesWrapOverAvailableModelsOnly) {
    const QList<CatalogModel> models{
        model(QStringLiteral("u1"), false), model(QStringLiteral("a1"), true),
        model(QStringLiteral("u2"), false), model(QStringLiteral("a2"), true),
        model(QStringLiteral("a3"), true),
    };
    ModelPickerState picker(QStringLiteral("a3"));
    EXPECT_EQ(picker.highlightedID, u"a3");
    picker.move(1, models);
    EXPECT_EQ(picker.highlightedID, u"a1"); // wrapped, u1 and u2 skipped
    picker.move(-1, models);
    EXPECT_EQ(picker.highlightedID, u"a3");
    picker.move(-1, models);
    picker.move(-1, models);
    picker.move(-1, models);
    EXPECT_EQ(picker.highlightedID, u"a3");

    // Without a highlight among the candidates: up takes the last, down the first.
    ModelPickerState stale(QStringLiteral("u1"));
    stale.move(-1, models);
    EXPECT_EQ(stale.highlightedID, u"a3");
    ModelPickerState none;
    none.move(1, models);
    EXPECT_EQ(none.highlightedID, u"a1");

    // Filtering narrows the candidates; reconcile keeps or replaces the highlight.
    picker.query = QStringLiteral("a2");
    picker.reconcile(models);
    EXPECT_EQ(picker.highlightedID, u"a2");
    picker.move(1, models);
    EXPECT_EQ(picker.highlightedID, u"a2");
    picker.query.clear();
    picker.reconcile(models);
    EXPECT_EQ(picker.highlightedID, u"a2");

    ModelPickerState empty(QStringLiteral("a1"));
    empty.move(1, {});
    EXPECT_EQ(empty.highlightedID, u"a1");
    empty.reconcile({});
    EXPECT_EQ(empty.highlightedID, std::nullopt);
    empty.move(1, {model(QStringLiteral("u"), false)});
    EXPECT_EQ(empty.highlightedID, std::nullopt);
}
