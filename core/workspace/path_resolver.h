#pragma once

#include "support/unique_fd.h"
#include "workspace/protected_paths.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <sys/stat.h>

namespace kestrolan {

// Turns a path the model gave into an open file, the kernel doing the resolution: beneath the
// workspace root in the ordinary modes, from "/" in the whole-machine mode, never through a
// /proc magic link, and never into a protected directory. Refusals are
// HarnessError(unsafePath); missing or unreadable files are WorkspaceFileError.
class PathResolver {
public:
    struct Opened {
        UniqueFd fd;
        struct stat status {};
    };
    struct Parent {
        UniqueFd directory;
        QByteArray name;
    };

    PathResolver(int rootFd, bool wholeMachine, const ProtectedPaths& protectedPaths);

    // Opens `path` read-only and non-blocking (a FIFO or device does not stall the open), after
    // following symbolic links, and checks every directory above it. An empty path is the root
    // in the ordinary modes.
    Opened open(const QString& path) const;
    // Opens the directory holding `path`'s last component, which is returned as it stands.
    Parent openParent(const QString& path) const;

    bool isProtected(const struct stat& status) const;
    // Throws unsafePath when `directoryFd` or any directory above it is protected.
    void checkDirectoryAndAncestors(int directoryFd) const;

private:
    UniqueFd resolve(const QString& path, int flags) const;
    void checkFileAncestors(int fd, const struct stat& status) const;

    int m_rootFd;
    bool m_wholeMachine;
    QList<ProtectedPaths::Identity> m_protected;
};

} // namespace kestrolan
