#pragma once

#include "error.h"

namespace kestrolan {

// A page fetch that was refused or failed. The description is the failed tool result's message.
class WebFetchError : public Error {
public:
    enum class Kind {
        invalidAddress,
        unsupportedScheme,
        credentialsInAddress,
        notPublic,
        tooManyRedirects,
        unsupportedContent,
        hostNotFound,
        insecureConnection,
        timedOut,
        unreachable,
    };

    explicit WebFetchError(Kind kind);

    Kind kind() const { return m_kind; }

    static QString describe(Kind kind);

private:
    Kind m_kind;
};

} // namespace kestrolan
