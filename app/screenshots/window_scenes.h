#pragma once

namespace kestrolan::screenshots {

// The whole main window in its main states, against an in-process service.
void windowScenes();

} // namespace kestrolan::screenshots
