#include "workspace/file_editor.h"

#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "tools/tool_result.h"
#include "workspace/file_digest.h"
#include "workspace/path_resolver.h"
#include "workspace/workspace_file_error.h"

#include <QJsonObject>
#include <QRandomGenerator>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace kestrolan {

namespace {

[[noreturn]] void throwKind(HarnessError::Kind kind) {
    throw HarnessError(kind);
}

bool unchanged(const struct stat& before, const struct stat& after) {
    return before.st_dev == after.st_dev && before.st_ino == after.st_ino &&
           before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
           before.st_mtim.tv_nsec == after.st_mtim.tv_nsec &&
           before.st_ctim.tv_sec == after.st_ctim.tv_sec &&
           before.st_ctim.tv_nsec == after.st_ctim.tv_nsec;
}

// The temporary file until it is renamed: removed again on every way out before that.
class TemporaryFile {
public:
    TemporaryFile(int directoryFd, mode_t mode)
        : m_directoryFd(directoryFd) {
        for (int attempt = 0; attempt < 16; ++attempt) {
            m_name = ".kestrolan-edit-" +
                     QByteArray::number(QRandomGenerator::global()->generate64(), 16) + ".tmp";
            const int fd = ::openat(directoryFd, m_name.constData(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
            if (fd >= 0) {
                m_fd = UniqueFd(fd);
                return;
            }
            if (errno != EEXIST)
                throw WorkspaceFileError::fromErrno(errno);
        }
        throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
    }
    ~TemporaryFile() {
        if (!m_renamed)
            ::unlinkat(m_directoryFd, m_name.constData(), 0);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return m_fd.get(); }
    const QByteArray& name() const { return m_name; }
    void markRenamed() { m_renamed = true; }

private:
    int m_directoryFd;
    QByteArray m_name;
    UniqueFd m_fd;
    bool m_renamed = false;
};

void writeAll(int fd, const QByteArray& bytes, const OperationCancellation& cancellation) {
    constexpr qsizetype chunk = 16 * 1024;
    qsizetype written = 0;
    while (written < bytes.size()) {
        cancellation.check();
        const ssize_t done =
            ::write(fd, bytes.constData() + written, size_t(qMin(chunk, bytes.size() - written)));
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            throw WorkspaceFileError::fromErrno(errno);
        written += done;
    }
}

} // namespace

QString FileEditor::edit(const PathResolver& resolver, const ToolOperation::EditFile& request,
                         const OperationCancellation& cancellation) {
    const QByteArray content = request.content.toUtf8();
    if (content.size() > maxContentBytes)
        throwKind(HarnessError::Kind::limit);
    const PathResolver::Parent parent = resolver.openParent(request.path);
    const int directory = parent.directory.get();
    const char* const name = parent.name.constData();

    UniqueFd target;
    struct stat before {};
    if (request.create) {
        if (::fstatat(directory, name, &before, AT_SYMLINK_NOFOLLOW) == 0)
            throwKind(HarnessError::Kind::staleFile);
        if (errno != ENOENT)
            throw WorkspaceFileError::fromErrno(errno);
    } else {
        target = UniqueFd(
            ::openat(directory, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
        if (!target.isValid()) {
            // A link as the last component would be replaced by a file, not edited through.
            if (errno == ELOOP)
                throwKind(HarnessError::Kind::unsafePath);
            if (errno == ENOENT)
                throwKind(HarnessError::Kind::staleFile);
            throw WorkspaceFileError::fromErrno(errno);
        }
        if (::fstat(target.get(), &before) != 0)
            throw WorkspaceFileError::fromErrno(errno);
        if (!S_ISREG(before.st_mode))
            throw WorkspaceFileError(WorkspaceFileError::Kind::notRegularFile);
        const QByteArray current = FileDigest::ofFile(target.get(), before.st_size, cancellation);
        if (current != request.expectedHash.value_or(QString()).toLatin1().toLower())
            throwKind(HarnessError::Kind::staleFile);
    }
    cancellation.check();

    // A new file gets the usual permissions (the umask applies); a replaced one keeps its own.
    TemporaryFile temporary(directory, request.create ? 0666 : 0600);
    if (!request.create && ::fchmod(temporary.fd(), before.st_mode & 07777) != 0)
        throw WorkspaceFileError::fromErrno(errno);
    writeAll(temporary.fd(), content, cancellation);
    if (::fsync(temporary.fd()) != 0)
        throw WorkspaceFileError::fromErrno(errno);
    if (beforeRename)
        beforeRename();
    cancellation.check();
    if (!request.create) {
        // Written to in place, or swapped for another file, since it was hashed.
        struct stat now {};
        struct stat named {};
        if (::fstat(target.get(), &now) != 0 || !unchanged(before, now) ||
            ::fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
            !unchanged(before, named))
            throwKind(HarnessError::Kind::staleFile);
    }

    const unsigned flags = request.create ? RENAME_NOREPLACE : 0;
    if (::renameat2(directory, temporary.name().constData(), directory, name, flags) != 0) {
        if (errno == EEXIST)
            throwKind(HarnessError::Kind::staleFile);
        // Nothing was replaced, but the reason is unknown: let the user look.
        throwKind(HarnessError::Kind::interruptedMutation);
    }
    temporary.markRenamed();
    // The new name is only durable once the folder is synced.
    if (::fsync(directory) != 0)
        throwKind(HarnessError::Kind::interruptedMutation);

    return ToolResult::success(QJsonObject{
        {QStringLiteral("path"), request.path},
        {QStringLiteral("sha256"), QString::fromLatin1(FileDigest::of(content))},
        {QStringLiteral("bytes_written"), qint64(content.size())},
        {QStringLiteral("created"), request.create},
    });
}

} // namespace kestrolan
