#include "conversation/context_budget.h"
#include "qstring_printer.h"

#include <gtest/gtest.h>

using namespace kestrolan;
using Reason = ContextBudget::Exceeded::Reason;

namespace {

std::optional<Reason> refusal(qint64 bytes, std::optional<qint64> context, qint64 allowance,
                              qsizetype messages) {
    try {
        ContextBudget::validate(QByteArray(bytes, 'x'), context, allowance, messages);
        return std::nullopt;
    } catch (const ContextBudget::Exceeded& error) {
        EXPECT_EQ(error.description(), u"Context is too large. Remove files or start a new chat.");
        return error.reason();
    }
}

} // namespace

TEST(ContextBudget, RefusesAnEncodedRequestOf921600BytesBeforeCountingTokens) {
    constexpr qint64 hugeContext = 10'000'000;
    EXPECT_EQ(refusal(921'599, hugeContext, 4'096, 1), Reason::inputTokens);
    EXPECT_EQ(refusal(921'600, hugeContext, 4'096, 1), Reason::encodedSize);
}

TEST(ContextBudget, TheOutputAllowanceMustLeaveRoomInTheContext) {
    EXPECT_EQ(refusal(10, 8'192, 8'192, 1), Reason::outputAllowance);
    EXPECT_EQ(refusal(10, 8'192, 9'000, 1), Reason::outputAllowance);
    EXPECT_EQ(refusal(10, 8'192, 0, 1), Reason::outputAllowance);
    EXPECT_EQ(refusal(10, std::nullopt, 0, 1), Reason::outputAllowance);
    // One token of room passes this step but holds no request.
    EXPECT_EQ(refusal(10, 8'192, 8'191, 1), Reason::inputTokens);
}

TEST(ContextBudget, TheEstimateMayReachTheSmallerOfRoomLeftAndTheCap) {
    // bytes + 1,024 + 256 per message
    EXPECT_EQ(ContextBudget::validate(QByteArray(100, 'x'), 8'192, 1'000, 3), 1'892);
    // Room left: 8,192 - 1,024 = 7,168 tokens.
    EXPECT_EQ(refusal(7'168 - 1'024 - 512, 8'192, 1'024, 2), std::nullopt);
    EXPECT_EQ(refusal(7'168 - 1'024 - 512 + 1, 8'192, 1'024, 2), Reason::inputTokens);
    EXPECT_EQ(refusal(7'168 - 1'024 - 256, 8'192, 1'024, 3), Reason::inputTokens);
    // A large context is capped at 131,072, as is one the catalog does not state.
    for (const std::optional<qint64> context :
         {std::optional<qint64>(1'000'000), std::optional<qint64>()}) {
        EXPECT_EQ(
            ContextBudget::validate(QByteArray(131'072 - 1'024 - 2'560, 'x'), context, 16'384, 10),
            131'072);
        EXPECT_EQ(refusal(131'072 - 1'024 - 2'560 + 1, context, 16'384, 10), Reason::inputTokens);
    }
    // No message count wraps the estimate around.
    EXPECT_EQ(refusal(10, 1'000'000, 16'384, std::numeric_limits<qsizetype>::max()),
              Reason::inputTokens);
}
