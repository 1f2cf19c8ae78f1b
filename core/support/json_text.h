#pragma once

#include <QByteArray>
#include <QString>

namespace kestrolan {

// One string as a JSON literal, quotes and escapes included, for results whose key order is
// fixed and so cannot come from a sorting encoder.
QByteArray jsonStringLiteral(const QString& text);

// Characters as a reader counts them: grapheme clusters, not code units.
qsizetype graphemeCount(const QString& text);

} // namespace kestrolan
