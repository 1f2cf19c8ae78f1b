#pragma once

#include "tools/tool_operation.h"

#include <QString>

namespace kestrolan {

class OperationCancellation;
class PathResolver;

// "edit_file": replaces a file's content atomically (a temporary file beside it, synced, then
// renamed over it), or creates a new one exclusively.
class FileEditor {
public:
    // The UTF-8 size of the new content; the call's arguments cannot carry more anyway.
    static constexpr qsizetype maxContentBytes = ToolOperation::maxArgumentBytes;

    static QString edit(const PathResolver& resolver, const ToolOperation::EditFile& request,
                        const OperationCancellation& cancellation);

    // Tests only: runs once the new content is on disk, before the last checks and the rename.
    static inline void (*beforeRename)() = nullptr;
};

} // namespace kestrolan
