#pragma once

#include "conversation/saved_conversation.h"
#include "service/billing_usage.h"

#include <QList>
#include <QString>
#include <QtGlobal>
#include <optional>

namespace kestrolan {

// What the inference rounds of one turn have cost so far. The total is kept exactly, in
// millionths of a dollar, so that eight rounds of six-decimal charges add up to the cent.
struct RoundCharges {
    quint64 totalMillionths = 0;
    // Some round's charge is not confirmed: its billing never arrived, is unresolved, or was
    // settled without an amount.
    bool pending = false;
    // Rounds added so far; more than one means the turn made tool rounds.
    int rounds = 0;

    // Adds one round. A settled amount must be digits with at most one ".", a non-empty integer
    // part and 1 to 6 fraction digits. An amount that is not, or that would take the total past
    // what 64 bits hold, throws ClientError(invalidResponse): it can only come from a billing
    // event the client cannot read, and the charges stay as they were.
    void append(const std::optional<BillingUsage>& billing);

    // The total as decimal text with at least two fraction digits and no trailing zeros beyond
    // them: "0.02125", "1.50", "0.00".
    QString chargedUSD() const;

    // The lines under a reply whose turn made tool rounds: the total, then whether every round
    // was confirmed (an unconfirmed one is a warning).
    QList<SavedConversation::Meta> metaLines() const;

    // The charge line shown for the session: the last billing event's own summary for a turn of
    // one round, the total for a turn of several.
    QString chargeSummary(const std::optional<BillingUsage>& lastBilling) const;

    bool operator==(const RoundCharges&) const = default;
};

} // namespace kestrolan
