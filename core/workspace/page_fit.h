#pragma once

#include "tools/tool_result.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

namespace kestrolan {

// Serialises the largest page of at most `count` items whose result fits ToolResult::maxBytes,
// so that a long page comes back shorter (with its next offset) rather than replaced as a whole.
// `build(n)` makes the result object holding the first n items. Only a single item too large on
// its own yields the whole-result replacement.
template <typename Build>
QString fitPage(qsizetype count, Build build) {
    qsizetype taken = count;
    for (;;) {
        const QByteArray serialized = QJsonDocument(build(taken)).toJson(QJsonDocument::Compact);
        if (serialized.size() <= ToolResult::maxBytes || taken <= 1)
            return ToolResult::bounded(serialized);
        // Shrink in proportion to the excess, always by at least one item.
        const qsizetype estimate = taken * ToolResult::maxBytes / serialized.size();
        taken = qBound<qsizetype>(1, estimate - estimate / 16, taken - 1);
    }
}

} // namespace kestrolan
