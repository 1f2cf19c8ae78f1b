#pragma once

#include "conversation/tool_call.h"
#include "tools/tool_operation.h"
#include "workspace/workspace_root_identity.h"

#include <QDateTime>
#include <QString>
#include <QUuid>
#include <chrono>
#include <optional>

namespace kestrolan {

// One question to the user: may this exact operation run once?
struct ToolApproval {
    // An unanswered question is denied after this long.
    static constexpr std::chrono::seconds lifetime{120};

    QUuid id;
    ToolCall call;
    ToolOperation operation;
    // The grant's folder when asked; none for web operations.
    std::optional<WorkspaceRootIdentity> rootIdentity;
    QUuid policyRevision;
    QDateTime expiresAt;

    bool operator==(const ToolApproval&) const = default;

    // What the user is told the operation may disclose.
    QString disclosure() const;
    // The approval sheet's line under the disclosure.
    static QString sheetNote();
};

} // namespace kestrolan
