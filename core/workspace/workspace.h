#pragma once

#include "workspace/protected_paths.h"
#include "workspace/workspace_root_identity.h"

#include <QString>
#include <QUrl>
#include <memory>

namespace kestrolan {

class OperationCancellation;
class ToolOperation;

// An open folder the model may work in. Thread-safe: execute() runs on the executor's queue.
class Workspace {
public:
    // Opens `folder` (a local file URL of an existing directory). With `wholeMachine`, paths given
    // to execute() must be absolute and may lead anywhere but the protected places; otherwise they
    // are relative and resolved beneath the folder by the kernel.
    // Throws HarnessError(staleWorkspace) when the folder cannot be opened as a directory.
    static std::shared_ptr<Workspace> open(const QUrl& folder, bool wholeMachine);
    // Same, with the protected places given explicitly (tests); open() uses
    // ProtectedPaths::forUser().
    static std::shared_ptr<Workspace> open(const QUrl& folder, bool wholeMachine,
                                           ProtectedPaths protectedPaths);

    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    QUrl url() const;
    WorkspaceRootIdentity identity() const;
    bool isWholeMachine() const;
    // Throws HarnessError(staleWorkspace) when the folder on disk is no longer the one opened.
    void validate() const;
    // Blocking. Runs a read_file, list_directory, search or edit_file operation and returns the
    // tool-result text (compact JSON, sorted keys, the 32 KiB whole-result rule of tool_result.h).
    // Throws HarnessError (unsafePath, staleFile, staleWorkspace, limit, interruptedMutation,
    // invalidArguments for an operation it does not handle) or CancellationError; calls
    // cancellation.check() between bounded steps.
    QString execute(const ToolOperation& operation,
                    const OperationCancellation& cancellation) const;

private:
    struct Private;
    explicit Workspace(std::unique_ptr<Private> p);
    std::unique_ptr<Private> d;
};

} // namespace kestrolan
