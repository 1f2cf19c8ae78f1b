#pragma once

#include <QString>
#include <QUrl>
#include <optional>

namespace kestrolan {

// A waiting `kestrolan-cli login` listens on a socket named after its attempt's state, so that
// the browser's callback, which the desktop's URL handler starts `kestrolan` with, reaches the
// terminal that asked for it rather than the app.
struct LoginSocket {
    // The socket of the attempt a callback (or an authorize address) belongs to; nothing when
    // the URL carries no usable state.
    static std::optional<QString> pathFor(const QUrl& url);
};

} // namespace kestrolan
