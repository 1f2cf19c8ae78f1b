#pragma once

#include <QtGlobal>

namespace kestrolan {

// Token counts the model reported for one response ("usage" of a stream chunk).
struct TokenUsage {
    quint64 promptTokens = 0;
    quint64 completionTokens = 0;
    quint64 totalTokens = 0;

    bool operator==(const TokenUsage&) const = default;
};

} // namespace kestrolan
