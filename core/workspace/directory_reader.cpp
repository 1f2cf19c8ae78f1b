#include "workspace/directory_reader.h"

#include "tools/operation_cancellation.h"
#include "workspace/workspace_file_error.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrolan {

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

unsigned char typeFromMode(mode_t mode) {
    if (S_ISREG(mode))
        return DT_REG;
    if (S_ISDIR(mode))
        return DT_DIR;
    if (S_ISLNK(mode))
        return DT_LNK;
    return DT_UNKNOWN;
}

// Entries read between two cancellation checks.
constexpr int checkInterval = 1024;

} // namespace

QList<DirectoryReader::Entry> DirectoryReader::read(int directoryFd,
                                                    const OperationCancellation& cancellation) {
    // fdopendir takes the descriptor over and reads from its offset: give it a fresh one.
    const int own = ::openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (own < 0)
        throw WorkspaceFileError::fromErrno(errno);
    std::unique_ptr<DIR, DirectoryCloser> directory(::fdopendir(own));
    if (!directory) {
        ::close(own);
        throw WorkspaceFileError::fromErrno(errno);
    }
    QList<Entry> entries;
    for (int count = 0;; ++count) {
        if (count % checkInterval == 0)
            cancellation.check();
        errno = 0;
        const dirent* entry = ::readdir(directory.get());
        if (!entry) {
            if (errno != 0)
                throw WorkspaceFileError::fromErrno(errno);
            break;
        }
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN) {
            struct stat status {};
            if (::fstatat(directoryFd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
                type = typeFromMode(status.st_mode);
        }
        entries.append({name, type});
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return entries;
}

} // namespace kestrolan
