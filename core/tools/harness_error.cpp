#include "tools/harness_error.h"

namespace kestrolan {

HarnessError::HarnessError(Kind kind)
    : Error(describe(kind))
    , m_kind(kind) {}

QString HarnessError::describe(Kind kind) {
    switch (kind) {
    case Kind::invalidArguments:
        return QStringLiteral("The tool call is invalid.");
    case Kind::accessDenied:
        return QStringLiteral("Local access was denied or revoked.");
    case Kind::staleWorkspace:
        return QStringLiteral("The workspace changed. Select it again.");
    case Kind::staleFile:
        return QStringLiteral("The file changed. Read and approve a new edit.");
    case Kind::unsafePath:
        return QStringLiteral("This path is outside the permitted workspace or is protected.");
    case Kind::unsupportedModel:
        return QStringLiteral("Start a new text conversation to use a model without tool support.");
    case Kind::shellDisabled:
        return QStringLiteral("Commands are disabled pending sandbox and descendant-cleanup "
                              "verification on supported Linux releases.");
    case Kind::limit:
        return QStringLiteral(
            "The turn reached its limit. Remove context, use an excerpt, or start a new chat.");
    case Kind::billingPending:
        return QStringLiteral(
            "Billing confirmation is pending. Check Activity before explicitly continuing.");
    case Kind::interruptedMutation:
        return QStringLiteral(
            "An edit was interrupted. Inspect the file before retrying; its outcome is uncertain.");
    }
    Q_UNREACHABLE();
}

} // namespace kestrolan
