#include "storage/local_privacy_error.h"

namespace kestrolan {

LocalPrivacyError::LocalPrivacyError(Kind kind)
    : Error(describe(kind))
    , m_kind(kind) {}

QString LocalPrivacyError::describe(Kind kind) {
    switch (kind) {
    case Kind::invalidContext:
        return QStringLiteral("An authenticated account and server origin are required.");
    case Kind::locked:
        return QStringLiteral("Local account data is locked. Sign in again.");
    case Kind::unavailable:
        return QStringLiteral(
            "Local encrypted storage is unavailable. Check folder and Keychain access.");
    case Kind::corrupt:
        return QStringLiteral(
            "Local encrypted data could not be verified. Restore it before continuing.");
    case Kind::quotaExceeded:
        return QStringLiteral(
            "Local storage is full. Remove projects or imported files before continuing.");
    case Kind::invalidRecord:
        return QStringLiteral("Local configuration is invalid or exceeds its limits.");
    case Kind::legacyImportRequired:
        return QStringLiteral("Import legacy local data explicitly into the signed-in account.");
    }
    Q_UNREACHABLE();
}

} // namespace kestrolan
