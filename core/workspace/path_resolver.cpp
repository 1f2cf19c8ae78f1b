#include "workspace/path_resolver.h"

#include "tools/harness_error.h"
#include "workspace/workspace_file_error.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kestrolan {

namespace {

[[noreturn]] void throwUnsafe() {
    throw HarnessError(HarnessError::Kind::unsafePath);
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Far deeper than any real tree; only stops a walk on a broken file system.
constexpr int maxAncestors = 4096;

} // namespace

PathResolver::PathResolver(int rootFd, bool wholeMachine, const ProtectedPaths& protectedPaths)
    : m_rootFd(rootFd)
    , m_wholeMachine(wholeMachine)
    , m_protected(protectedPaths.identities()) {}

UniqueFd PathResolver::resolve(const QString& path, int flags) const {
    if (path.contains(QChar(u'\0')))
        throwUnsafe();
    const bool absolute = path.startsWith(u'/');
    if (absolute != m_wholeMachine)
        throwUnsafe();
    QByteArray bytes = path.toUtf8();
    if (bytes.isEmpty())
        bytes = QByteArrayLiteral(".");
    open_how how{};
    how.flags = quint64(flags | O_CLOEXEC);
    how.resolve = RESOLVE_NO_MAGICLINKS | (m_wholeMachine ? 0 : RESOLVE_BENEATH);
    const int base = m_wholeMachine ? AT_FDCWD : m_rootFd;
    for (int attempt = 0;; ++attempt) {
        const long fd = ::syscall(SYS_openat2, base, bytes.constData(), &how, sizeof how);
        if (fd >= 0)
            return UniqueFd(int(fd));
        const int error = errno;
        // The kernel gives up on a beneath-resolution when a rename races it; try again.
        if ((error == EAGAIN || error == EINTR) && attempt < 16)
            continue;
        // EXDEV: the path left the root; ELOOP: a magic link or a loop of links.
        if (error == EXDEV || error == ELOOP)
            throwUnsafe();
        throw WorkspaceFileError::fromErrno(error);
    }
}

PathResolver::Opened PathResolver::open(const QString& path) const {
    Opened opened;
    opened.fd = resolve(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (::fstat(opened.fd.get(), &opened.status) != 0)
        throw WorkspaceFileError::fromErrno(errno);
    if (S_ISDIR(opened.status.st_mode))
        checkDirectoryAndAncestors(opened.fd.get());
    else
        checkFileAncestors(opened.fd.get(), opened.status);
    return opened;
}

PathResolver::Parent PathResolver::openParent(const QString& path) const {
    const qsizetype slash = path.lastIndexOf(u'/');
    const QString name = path.mid(slash + 1);
    if (name.isEmpty() || name == u"." || name == u"..")
        throw HarnessError(HarnessError::Kind::invalidArguments);
    QString directory = path.left(slash < 0 ? 0 : slash);
    if (slash == 0)
        directory = QStringLiteral("/");
    // resolve() refuses a relative path in the whole-machine mode; "name" alone is one.
    if (m_wholeMachine && slash < 0)
        throwUnsafe();
    Parent parent;
    parent.directory = resolve(directory, O_RDONLY | O_DIRECTORY);
    parent.name = name.toUtf8();
    checkDirectoryAndAncestors(parent.directory.get());
    return parent;
}

bool PathResolver::isProtected(const struct stat& status) const {
    return m_protected.contains(
        ProtectedPaths::Identity{quint64(status.st_dev), quint64(status.st_ino)});
}

void PathResolver::checkDirectoryAndAncestors(int directoryFd) const {
    if (m_protected.isEmpty())
        return;
    UniqueFd current(::openat(directoryFd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!current.isValid() || ::fstat(current.get(), &status) != 0)
        throw WorkspaceFileError::fromErrno(errno);
    for (int depth = 0; depth < maxAncestors; ++depth) {
        if (isProtected(status))
            throwUnsafe();
        UniqueFd parent(::openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat parentStatus {};
        if (!parent.isValid() || ::fstat(parent.get(), &parentStatus) != 0)
            throw WorkspaceFileError::fromErrno(errno);
        // Only the root is its own parent.
        if (sameFile(parentStatus, status))
            return;
        current = std::move(parent);
        status = parentStatus;
    }
    throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
}

void PathResolver::checkFileAncestors(int fd, const struct stat& status) const {
    if (m_protected.isEmpty())
        return;
    // The kernel's own name for the open file tells which directory holds it; the file is then
    // looked up there again so that a file moved meanwhile is not judged by a stale name.
    std::array<char, 32> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    std::array<char, PATH_MAX + 1> target{};
    const ssize_t length = ::readlink(link.data(), target.data(), target.size());
    if (length <= 0 || length >= ssize_t(target.size()) || target[0] != '/')
        throwUnsafe();
    const QByteArray real(target.data(), length);
    const qsizetype slash = real.lastIndexOf('/');
    const QByteArray directory = slash == 0 ? QByteArrayLiteral("/") : real.left(slash);
    const QByteArray name = real.mid(slash + 1);
    UniqueFd parent(::open(directory.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat found {};
    if (!parent.isValid() ||
        ::fstatat(parent.get(), name.constData(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameFile(found, status))
        throw WorkspaceFileError(WorkspaceFileError::Kind::notFound);
    checkDirectoryAndAncestors(parent.get());
}

} // namespace kestrolan
