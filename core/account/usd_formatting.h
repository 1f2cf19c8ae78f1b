#pragma once

#include <QString>
#include <optional>

namespace kestrolan {

// US-dollar amounts for display, by text manipulation only: the decimal text from the wire is
// never turned into a binary floating-point number.
struct USDFormatting {
    // "$1,234.50" for "1234.5". Nothing for text that is not an optional minus, digits and at
    // most six fraction digits. Unless `precise`, amounts of a dollar or more are cut (not
    // rounded) to cents; smaller amounts keep every significant digit so that per-token prices
    // stay visible.
    static std::optional<QString> display(const QString& value, bool precise);
};

} // namespace kestrolan
