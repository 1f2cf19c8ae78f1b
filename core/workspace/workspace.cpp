#include "workspace/workspace.h"

#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "tools/tool_operation.h"
#include "workspace/directory_lister.h"
#include "workspace/file_editor.h"
#include "workspace/file_reader.h"
#include "workspace/path_resolver.h"
#include "workspace/workspace_search.h"

#include <QFile>
#include <fcntl.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <variant>

namespace kestrolan {

struct Workspace::Private {
    QUrl url;
    QString path;
    bool wholeMachine = false;
    ProtectedPaths protectedPaths;
    int rootFd = -1;
    WorkspaceRootIdentity identity;
};

Workspace::Workspace(std::unique_ptr<Private> p)
    : d(std::move(p)) {}

Workspace::~Workspace() {
    if (d->rootFd >= 0)
        ::close(d->rootFd);
}

std::shared_ptr<Workspace> Workspace::open(const QUrl& folder, bool wholeMachine) {
    return open(folder, wholeMachine, ProtectedPaths::forUser());
}

std::shared_ptr<Workspace> Workspace::open(const QUrl& folder, bool wholeMachine,
                                           ProtectedPaths protectedPaths) {
    if (!folder.isLocalFile())
        throw HarnessError(HarnessError::Kind::staleWorkspace);
    auto p = std::make_unique<Private>();
    p->url = folder;
    p->path = folder.toLocalFile();
    p->wholeMachine = wholeMachine;
    p->protectedPaths = std::move(protectedPaths);
    p->rootFd = ::open(QFile::encodeName(p->path).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (p->rootFd < 0)
        throw HarnessError(HarnessError::Kind::staleWorkspace);
    struct stat status {};
    if (::fstat(p->rootFd, &status) != 0) {
        ::close(p->rootFd);
        throw HarnessError(HarnessError::Kind::staleWorkspace);
    }
    p->identity = {quint64(status.st_dev), quint64(status.st_ino)};
    return std::shared_ptr<Workspace>(new Workspace(std::move(p)));
}

QUrl Workspace::url() const {
    return d->url;
}

WorkspaceRootIdentity Workspace::identity() const {
    return d->identity;
}

bool Workspace::isWholeMachine() const {
    return d->wholeMachine;
}

void Workspace::validate() const {
    struct stat status {};
    if (::stat(QFile::encodeName(d->path).constData(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        WorkspaceRootIdentity{quint64(status.st_dev), quint64(status.st_ino)} != d->identity)
        throw HarnessError(HarnessError::Kind::staleWorkspace);
}

QString Workspace::execute(const ToolOperation& operation,
                           const OperationCancellation& cancellation) const {
    cancellation.check();
    validate();
    const PathResolver resolver(d->rootFd, d->wholeMachine, d->protectedPaths);
    return std::visit(
        [&](const auto& request) -> QString {
            using Request = std::decay_t<decltype(request)>;
            if constexpr (std::is_same_v<Request, ToolOperation::ReadFile>)
                return FileReader::read(resolver, request, cancellation);
            else if constexpr (std::is_same_v<Request, ToolOperation::ListDirectory>)
                return DirectoryLister::list(resolver, request, cancellation);
            else if constexpr (std::is_same_v<Request, ToolOperation::Search>)
                return WorkspaceSearch::search(resolver, request, cancellation);
            else if constexpr (std::is_same_v<Request, ToolOperation::EditFile>)
                return FileEditor::edit(resolver, request, cancellation);
            else
                throw HarnessError(HarnessError::Kind::invalidArguments);
        },
        operation.payload());
}

} // namespace kestrolan
