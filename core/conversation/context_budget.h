#pragma once

#include "error.h"

#include <QByteArray>
#include <QtGlobal>
#include <optional>

namespace kestrolan {

// How much one inference request may carry. Bytes stand for tokens one for one: a deliberate
// over-estimate, so a request that passes never overruns the model's context.
struct ContextBudget {
    static constexpr qint64 maxInputTokens = 131'072;
    static constexpr qint64 maxEncodedBytes = 225 * 4'096;
    static constexpr qint64 requestOverheadTokens = 1'024;
    static constexpr qint64 messageOverheadTokens = 256;

    // A request the budget refuses. Every reason reads the same to the user, who can only remove
    // files or start over; the reason is kept for logs and tests.
    class Exceeded : public Error {
    public:
        enum class Reason { encodedSize, outputAllowance, inputTokens };

        explicit Exceeded(Reason reason);
        Reason reason() const { return m_reason; }

    private:
        Reason m_reason;
    };

    // Returns the estimated input tokens of `encodedRequest`, or throws Exceeded. Without a
    // published context size only the fixed cap bounds the input.
    static qint64 validate(const QByteArray& encodedRequest,
                           std::optional<qint64> catalogContextTokens, qint64 outputAllowance,
                           qsizetype messageCount);
};

} // namespace kestrolan
