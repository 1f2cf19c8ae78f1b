#pragma once

#include "error.h"

namespace kestrolan {

// Failures of local tool calls. The description is also the message of the failed tool result.
class HarnessError : public Error {
public:
    enum class Kind {
        invalidArguments,
        accessDenied,
        staleWorkspace,
        staleFile,
        unsafePath,
        unsupportedModel,
        shellDisabled,
        limit,
        billingPending,
        interruptedMutation,
    };

    explicit HarnessError(Kind kind);

    Kind kind() const { return m_kind; }
    bool operator==(const HarnessError& other) const { return m_kind == other.m_kind; }

    static QString describe(Kind kind);

private:
    Kind m_kind;
};

} // namespace kestrolan
