#include "workspace/directory_lister.h"

#include "tools/operation_cancellation.h"
#include "workspace/directory_reader.h"
#include "workspace/page_fit.h"
#include "workspace/path_resolver.h"
#include "workspace/workspace_file_error.h"

#include <QJsonArray>
#include <dirent.h>
#include <fcntl.h>

namespace kestrolan {

namespace {

QString typeName(unsigned char type) {
    switch (type) {
    case DT_REG:
        return QStringLiteral("file");
    case DT_DIR:
        return QStringLiteral("directory");
    case DT_LNK:
        return QStringLiteral("symlink");
    default:
        return QStringLiteral("other");
    }
}

} // namespace

QString DirectoryLister::list(const PathResolver& resolver,
                              const ToolOperation::ListDirectory& request,
                              const OperationCancellation& cancellation) {
    const PathResolver::Opened folder = resolver.open(request.path);
    if (!S_ISDIR(folder.status.st_mode))
        throw WorkspaceFileError(WorkspaceFileError::Kind::notDirectory);

    QList<DirectoryReader::Entry> entries = DirectoryReader::read(folder.fd.get(), cancellation);
    qint64 protectedCount = 0;
    entries.removeIf([&](const DirectoryReader::Entry& entry) {
        if (entry.type != DT_DIR)
            return false;
        struct stat status {};
        if (::fstatat(folder.fd.get(), entry.name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !resolver.isProtected(status))
            return false;
        ++protectedCount;
        return true;
    });
    cancellation.check();

    const qsizetype first = qsizetype(qMin<qint64>(request.offset, entries.size()));
    const qsizetype available = qsizetype(qMin<qint64>(request.limit, entries.size() - first));
    QJsonArray page;
    for (qsizetype index = first; index < first + available; ++index) {
        const DirectoryReader::Entry& entry = entries[index];
        QJsonObject item{{QStringLiteral("name"), QString::fromUtf8(entry.name)},
                         {QStringLiteral("type"), typeName(entry.type)}};
        struct stat status {};
        if (entry.type == DT_REG &&
            ::fstatat(folder.fd.get(), entry.name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            item.insert(QStringLiteral("size"), qint64(status.st_size));
        page.append(item);
    }

    return fitPage(available, [&](qsizetype taken) {
        QJsonArray shown = page;
        while (shown.size() > taken)
            shown.removeLast();
        const qint64 remaining = entries.size() - first - taken;
        QJsonObject object{{QStringLiteral("path"), request.path},
                           {QStringLiteral("entries"), shown},
                           {QStringLiteral("offset"), request.offset},
                           {QStringLiteral("remaining"), remaining},
                           {QStringLiteral("protected_omitted"), protectedCount}};
        if (remaining > 0)
            object.insert(QStringLiteral("next_offset"), request.offset + taken);
        return object;
    });
}

} // namespace kestrolan
