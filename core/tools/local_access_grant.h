#pragma once

#include "storage/local_account_context.h"
#include "tools/local_access_mode.h"
#include "workspace/workspace_root_identity.h"

#include <QUuid>

namespace kestrolan {

// The access the user gave one chat: which folder, in which mode. Every grant has its own
// policy revision, so an approval asked under an earlier grant can never be allowed.
struct LocalAccessGrant {
    LocalAccountContext context;
    QUuid chatID;
    WorkspaceRootIdentity rootIdentity;
    QUuid policyRevision;
    LocalAccessMode mode = LocalAccessMode::off;

    bool operator==(const LocalAccessGrant&) const = default;
};

} // namespace kestrolan
