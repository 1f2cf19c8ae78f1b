#pragma once

#include "tools/tool_operation.h"

#include <QString>

namespace kestrolan {

class OperationCancellation;
class PathResolver;

// "list_directory": one page of a folder's entries, sorted by name, protected folders left out.
class DirectoryLister {
public:
    static QString list(const PathResolver& resolver, const ToolOperation::ListDirectory& request,
                        const OperationCancellation& cancellation);
};

} // namespace kestrolan
