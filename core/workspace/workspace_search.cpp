#include "workspace/workspace_search.h"

#include "workspace/directory_reader.h"
#include "workspace/file_digest.h"
#include "workspace/page_fit.h"
#include "workspace/path_resolver.h"
#include "workspace/workspace_file_error.h"

#include <QJsonArray>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kestrolan {

namespace {

struct Hit {
    QByteArray path;
    qint64 line = 0;
    QByteArray text;
};

// The bytes of `line` up to maxLineBytes, never splitting a UTF-8 sequence.
QByteArrayView cutLine(QByteArrayView line) {
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.size() <= WorkspaceSearch::maxLineBytes)
        return line;
    qsizetype end = WorkspaceSearch::maxLineBytes;
    // Back off over continuation bytes (10xxxxxx) to the start of the cut sequence.
    for (int step = 0; step < 4 && end > 0 && (quint8(line[end]) & 0xC0) == 0x80; ++step)
        --end;
    return line.first(end);
}

class Walk {
public:
    Walk(const PathResolver& resolver, QByteArray query, qint64 wanted,
         const OperationCancellation& cancellation)
        : m_resolver(resolver)
        , m_query(std::move(query))
        , m_wanted(wanted)
        , m_cancellation(cancellation) {
        m_buffer.resize(WorkspaceSearch::maxFileBytes);
    }

    void run(int rootFd) {
        QList<QByteArray> pending{QByteArray()};
        while (!pending.isEmpty() && !isDone()) {
            const QByteArray relative = pending.takeLast();
            UniqueFd directory =
                relative.isEmpty() ? reopen(rootFd) : openBeneath(rootFd, relative);
            if (!directory.isValid()) {
                ++skippedUnreadable;
                continue;
            }
            QList<QByteArray> subdirectories;
            for (const DirectoryReader::Entry& entry :
                 DirectoryReader::read(directory.get(), m_cancellation)) {
                if (isDone())
                    break;
                const QByteArray path =
                    relative.isEmpty() ? entry.name : relative + '/' + entry.name;
                if (entry.type == DT_DIR) {
                    if (entry.name == ".git")
                        continue;
                    struct stat status {};
                    if (::fstatat(directory.get(), entry.name.constData(), &status,
                                  AT_SYMLINK_NOFOLLOW) == 0 &&
                        m_resolver.isProtected(status))
                        ++skippedProtected;
                    else
                        subdirectories.append(path);
                } else if (entry.type == DT_REG) {
                    if (filesSearched + skippedTotal() >= WorkspaceSearch::maxFiles) {
                        fileCapReached = true;
                        break;
                    }
                    m_cancellation.check();
                    searchFile(directory.get(), entry.name, path);
                    if (WorkspaceSearch::afterFile)
                        WorkspaceSearch::afterFile();
                }
            }
            // Popped from the back: the first name in sort order is walked first.
            for (auto it = subdirectories.crbegin(); it != subdirectories.crend(); ++it)
                pending.append(*it);
        }
    }

    void searchFile(int directoryFd, const QByteArray& name, const QByteArray& path) {
        const UniqueFd fd(::openat(directoryFd, name.constData(),
                                   O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
        struct stat status {};
        if (!fd.isValid() || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            ++skippedUnreadable;
            return;
        }
        if (status.st_size > WorkspaceSearch::maxFileBytes) {
            ++skippedLarge;
            return;
        }
        const qsizetype size = fd.readAll(m_buffer.data(), qsizetype(status.st_size));
        if (size < 0) {
            ++skippedUnreadable;
            return;
        }
        const QByteArrayView bytes(m_buffer.constData(), size);
        if (FileDigest::looksBinary(bytes)) {
            ++skippedBinary;
            return;
        }
        ++filesSearched;
        findHits(bytes, path);
    }

    void findHits(QByteArrayView bytes, const QByteArray& path) {
        const char* const data = bytes.data();
        const char* const end = data + bytes.size();
        const char* counted = data;
        qint64 line = 1;
        const char* from = data;
        while (from < end && !isDone()) {
            const void* found =
                ::memmem(from, size_t(end - from), m_query.constData(), size_t(m_query.size()));
            if (!found)
                return;
            const char* match = static_cast<const char*>(found);
            const void* before = ::memrchr(data, '\n', size_t(match - data));
            const char* lineStart = before ? static_cast<const char*>(before) + 1 : data;
            const void* after = std::memchr(match, '\n', size_t(end - match));
            const char* lineEnd = after ? static_cast<const char*>(after) : end;
            line += std::count(counted, lineStart, '\n');
            counted = lineStart;
            hits.append({path, line, cutLine(QByteArrayView(lineStart, lineEnd)).toByteArray()});
            from = lineEnd + 1;
        }
    }

    bool isDone() const { return fileCapReached || hits.size() >= m_wanted; }
    qint64 skippedTotal() const { return skippedBinary + skippedLarge + skippedUnreadable; }

    QList<Hit> hits;
    qint64 filesSearched = 0;
    qint64 skippedBinary = 0;
    qint64 skippedLarge = 0;
    qint64 skippedProtected = 0;
    qint64 skippedUnreadable = 0;
    bool fileCapReached = false;

private:
    static UniqueFd reopen(int fd) {
        return UniqueFd(::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }

    // Subfolders are reached again from the searched folder with no link followed, so a folder
    // swapped for a link mid-walk leads nowhere.
    static UniqueFd openBeneath(int rootFd, const QByteArray& relative) {
        open_how how{};
        how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        const long fd = ::syscall(SYS_openat2, rootFd, relative.constData(), &how, sizeof how);
        return UniqueFd(fd >= 0 ? int(fd) : -1);
    }

    const PathResolver& m_resolver;
    const QByteArray m_query;
    const qint64 m_wanted;
    const OperationCancellation& m_cancellation;
    QByteArray m_buffer;
};

} // namespace

QString WorkspaceSearch::search(const PathResolver& resolver, const ToolOperation::Search& request,
                                const OperationCancellation& cancellation) {
    const PathResolver::Opened root = resolver.open(request.path);
    if (!S_ISDIR(root.status.st_mode))
        throw WorkspaceFileError(WorkspaceFileError::Kind::notDirectory);
    cancellation.check();

    // One hit beyond the page tells whether another page follows.
    Walk walk(resolver, request.query.toUtf8(), request.offset + request.limit + 1, cancellation);
    walk.run(root.fd.get());

    const qsizetype first = qsizetype(qMin<qint64>(request.offset, walk.hits.size()));
    const qsizetype available = qsizetype(qMin<qint64>(request.limit, walk.hits.size() - first));
    QJsonArray page;
    for (qsizetype index = first; index < first + available; ++index) {
        const Hit& hit = walk.hits[index];
        page.append(QJsonObject{{QStringLiteral("path"), QString::fromUtf8(hit.path)},
                                {QStringLiteral("line"), hit.line},
                                {QStringLiteral("text"), QString::fromUtf8(hit.text)}});
    }
    return fitPage(available, [&](qsizetype taken) {
        QJsonArray shown = page;
        while (shown.size() > taken)
            shown.removeLast();
        QJsonObject object{{QStringLiteral("path"), request.path},
                           {QStringLiteral("query"), request.query},
                           {QStringLiteral("hits"), shown},
                           {QStringLiteral("offset"), request.offset},
                           {QStringLiteral("files_searched"), walk.filesSearched},
                           {QStringLiteral("skipped_binary"), walk.skippedBinary},
                           {QStringLiteral("skipped_large"), walk.skippedLarge},
                           {QStringLiteral("skipped_protected"), walk.skippedProtected},
                           {QStringLiteral("skipped_unreadable"), walk.skippedUnreadable},
                           {QStringLiteral("file_cap_reached"), walk.fileCapReached},
                           {QStringLiteral("untrusted"), true}};
        if (first + taken < walk.hits.size())
            object.insert(QStringLiteral("next_offset"), request.offset + taken);
        return object;
    });
}

} // namespace kestrolan
