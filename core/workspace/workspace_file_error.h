#pragma once

#include "error.h"

namespace kestrolan {

// A file operation that failed for a reason the file system gave, not a refusal of the
// workspace's rules (those are HarnessError).
class WorkspaceFileError : public Error {
public:
    enum class Kind {
        notFound,
        notRegularFile,
        notDirectory,
        permissionDenied,
        ioFailure,
    };

    explicit WorkspaceFileError(Kind kind);

    Kind kind() const { return m_kind; }

    static QString describe(Kind kind);
    // The error for a failed file-system call's errno.
    static WorkspaceFileError fromErrno(int error);

private:
    Kind m_kind;
};

} // namespace kestrolan
