#pragma once

#include <QString>

namespace kestrolan {

// Makes model and tool text safe to show: terminal escape sequences, control characters and
// bidirectional overrides are removed; tab and line feed stay.
struct ToolText {
    static QString escaped(QStringView text);
};

} // namespace kestrolan
