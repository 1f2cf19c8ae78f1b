#include "workspace/workspace_file_error.h"

#include <cerrno>

namespace kestrolan {

WorkspaceFileError::WorkspaceFileError(Kind kind)
    : Error(describe(kind))
    , m_kind(kind) {}

QString WorkspaceFileError::describe(Kind kind) {
    switch (kind) {
    case Kind::notFound:
        return QStringLiteral("The file or folder does not exist.");
    case Kind::notRegularFile:
        return QStringLiteral("Only regular files can be read or edited.");
    case Kind::notDirectory:
        return QStringLiteral("This path is not a folder.");
    case Kind::permissionDenied:
        return QStringLiteral("The system denied access to this file or folder.");
    case Kind::ioFailure:
        return QStringLiteral("The file system reported an error.");
    }
    Q_UNREACHABLE();
}

WorkspaceFileError WorkspaceFileError::fromErrno(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
        return WorkspaceFileError(Kind::notFound);
    case EACCES:
    case EPERM:
    case EROFS:
        return WorkspaceFileError(Kind::permissionDenied);
    case ENXIO:
    case ENODEV:
    case EISDIR:
        return WorkspaceFileError(Kind::notRegularFile);
    default:
        return WorkspaceFileError(Kind::ioFailure);
    }
}

} // namespace kestrolan
