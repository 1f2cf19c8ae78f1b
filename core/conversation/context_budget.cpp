#include "conversation/context_budget.h"

#include <algorithm>

namespace kestrolan {

ContextBudget::Exceeded::Exceeded(Reason reason)
    : Error(QStringLiteral("Context is too large. Remove files or start a new chat."))
    , m_reason(reason) {}

qint64 ContextBudget::validate(const QByteArray& encodedRequest,
                               std::optional<qint64> catalogContextTokens, qint64 outputAllowance,
                               qsizetype messageCount) {
    using Reason = Exceeded::Reason;
    const qint64 bytes = encodedRequest.size();
    if (bytes >= maxEncodedBytes)
        throw Exceeded(Reason::encodedSize);
    if (outputAllowance < 1 || (catalogContextTokens && outputAllowance >= *catalogContextTokens))
        throw Exceeded(Reason::outputAllowance);

    qint64 limit = maxInputTokens;
    if (catalogContextTokens)
        limit = std::min(limit, *catalogContextTokens - outputAllowance);
    Q_ASSERT(messageCount >= 0);
    // Checked before multiplying, so that no message count can overflow the estimate.
    if (messageCount > maxInputTokens / messageOverheadTokens)
        throw Exceeded(Reason::inputTokens);
    const qint64 estimate = bytes + requestOverheadTokens + messageOverheadTokens * messageCount;
    if (estimate > limit)
        throw Exceeded(Reason::inputTokens);
    return estimate;
}

} // namespace kestrolan
