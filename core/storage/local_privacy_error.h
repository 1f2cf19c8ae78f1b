#pragma once

#include "error.h"

namespace kestrolan {

// Failures of the account's encrypted local data, each with one fixed message.
class LocalPrivacyError : public Error {
public:
    enum class Kind {
        invalidContext,
        locked,
        unavailable,
        corrupt,
        quotaExceeded,
        invalidRecord,
        legacyImportRequired,
    };

    explicit LocalPrivacyError(Kind kind);

    Kind kind() const { return m_kind; }
    bool operator==(const LocalPrivacyError& other) const { return m_kind == other.m_kind; }

    static QString describe(Kind kind);

private:
    Kind m_kind;
};

} // namespace kestrolan
