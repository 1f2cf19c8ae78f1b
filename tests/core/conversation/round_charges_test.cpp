#include "conversation/round_charges.h"
#include "qstring_printer.h"
#include "service/client_error.h"

#include <gtest/gtest.h>

using namespace kestrolan;
using State = BillingUsage::State;
using Meta = SavedConversation::Meta;

namespace {

BillingUsage settled(const char* amount) {
    return BillingUsage{.chargedUSD = QString::fromUtf8(amount), .state = State::settled};
}

BillingUsage withState(State state) {
    return BillingUsage{.state = state};
}

} // namespace

TEST(RoundCharges, SumsSettledRoundsExactlyAndIgnoresReleasedOnes) {
    RoundCharges charges;
    EXPECT_EQ(charges.chargedUSD(), u"0.00");

    // 0.1 + 0.2 is where binary floating point first shows.
    charges.append(settled("0.1"));
    charges.append(settled("0.2"));
    EXPECT_EQ(charges.chargedUSD(), u"0.30");
    charges.append(withState(State::released));
    charges.append(settled("0.021250"));
    charges.append(settled("001.000001"));
    EXPECT_EQ(charges.totalMillionths, 1'321'251u);
    EXPECT_EQ(charges.chargedUSD(), u"1.321251");
    EXPECT_FALSE(charges.pending);
    EXPECT_EQ(charges.rounds, 5);
    EXPECT_EQ(charges.metaLines(),
              (QList<Meta>{{QStringLiteral("Total charged $1.321251"), false},
                           {QStringLiteral("Each inference round is billed separately."), false}}));
}

TEST(RoundCharges, AnUnconfirmedRoundLeavesTheTotalPending) {
    const std::optional<BillingUsage> unconfirmed[] = {
        std::nullopt, withState(State::unresolved),
        BillingUsage{.state = State::settled}, // settled without an amount
    };
    for (const auto& billing : unconfirmed) {
        RoundCharges charges;
        charges.append(settled("0.5"));
        charges.append(billing);
        charges.append(settled("0.25"));
        EXPECT_TRUE(charges.pending);
        EXPECT_EQ(
            charges.metaLines(),
            (QList<Meta>{
                {QStringLiteral("Total charged $0.75"), false},
                {QStringLiteral("Billing confirmation pending; see Activity before continuing."),
                 true}}));
    }
}

TEST(RoundCharges, RefusesMalformedAmountsAndOverflowWithoutChangingTheTotal) {
    const char* malformed[] = {"", ".5", "5.", "1.1234567", "1.2.3", "-1", "+1", "1e3", " 1", "1,5",
                               "0x10", "\u0661", "1.\u0662", "99999999999999999999",
                               // one millionth past what 64 bits hold
                               "18446744073709.551616"};
    for (const char* amount : malformed) {
        RoundCharges charges;
        charges.append(settled("2"));
        try {
            charges.append(settled(amount));
            ADD_FAILURE() << "accepted " << amount;
        } catch (const ClientError& error) {
            EXPECT_EQ(error.kind(), ClientError::Kind::invalidResponse) << amount;
        }
        EXPECT_EQ(charges, (RoundCharges{2'000'000, false, 1})) << amount;
    }

    RoundCharges full;
    full.append(settled("18446744073709.551615"));
    EXPECT_EQ(full.chargedUSD(), u"18446744073709.551615");
    EXPECT_THROW(full.append(settled("0.000001")), ClientError);
    EXPECT_EQ(full.totalMillionths, std::numeric_limits<quint64>::max());
    EXPECT_EQ(full.rounds, 1);
}

TEST(RoundCharges, ChargeSummaryShowsTheRoundForOneRoundAndTheTotalForSeveral) {
    RoundCharges charges;
    EXPECT_EQ(charges.chargeSummary(std::nullopt),
              u"Billing confirmation not received; see Activity.");

    charges.append(std::nullopt);
    EXPECT_EQ(charges.chargeSummary(std::nullopt),
              u"Billing confirmation not received; see Activity.");

    RoundCharges one;
    one.append(settled("0.0042"));
    EXPECT_EQ(one.chargeSummary(settled("0.0042")), u"Charged $0.0042");
    RoundCharges released;
    released.append(withState(State::released));
    EXPECT_EQ(released.chargeSummary(withState(State::released)),
              u"No charge. Credit reservation released.");

    RoundCharges several;
    several.append(settled("0.01"));
    several.append(settled("0.0025"));
    EXPECT_EQ(several.chargeSummary(settled("0.0025")), u"Total charged $0.0125.");
    several.append(withState(State::unresolved));
    EXPECT_EQ(several.chargeSummary(withState(State::unresolved)),
              u"Total charged $0.0125. Billing confirmation pending; see Activity.");
}
