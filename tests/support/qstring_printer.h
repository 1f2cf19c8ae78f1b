#pragma once

#include <QString>
#include <ostream>

// Readable QString values in failure messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
