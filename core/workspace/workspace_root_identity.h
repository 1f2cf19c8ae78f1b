#pragma once

#include <QtGlobal>

namespace kestrolan {

// Which directory a workspace root is, independent of the path it was reached by.
struct WorkspaceRootIdentity {
    quint64 device = 0;
    quint64 inode = 0;
    bool operator==(const WorkspaceRootIdentity&) const = default;
};

} // namespace kestrolan
