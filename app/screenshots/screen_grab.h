#pragma once

#include <QPalette>
#include <QString>

class QWidget;

namespace kestrolan::screenshots {

// Where the PNGs go; set once from the command line.
void setOutputDirectory(const QString& directory);
// Lets pending layout, paint and network events run.
void settle();
// Writes the screen under `window` (sheets and popups above it included) to NAME.png.
void shoot(QWidget& window, const QString& name);

} // namespace kestrolan::screenshots
