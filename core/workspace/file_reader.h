#pragma once

#include "tools/tool_operation.h"

#include <QString>

namespace kestrolan {

class OperationCancellation;
class PathResolver;

// "read_file": a page of lines of one regular file, with its size and SHA-256.
class FileReader {
public:
    static QString read(const PathResolver& resolver, const ToolOperation::ReadFile& request,
                        const OperationCancellation& cancellation);
};

} // namespace kestrolan
