#pragma once

#include "tools/operation_cancellation.h"
#include "tools/tool_operation.h"

#include <QString>

namespace kestrolan {

class PathResolver;

// "search": a literal byte match of the query in the text files under a folder, without
// following symbolic links, one hit per matching line.
class WorkspaceSearch {
public:
    static constexpr qint64 maxFiles = 20'000;
    static constexpr qint64 maxFileBytes = 1024 * 1024;
    static constexpr qsizetype maxLineBytes = 400;

    static QString search(const PathResolver& resolver, const ToolOperation::Search& request,
                          const OperationCancellation& cancellation);

    // Tests only: runs after each file searched.
    static inline void (*afterFile)() = nullptr;
};

} // namespace kestrolan
