#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QtGlobal>
#include <functional>

namespace kestrolan {

class OperationCancellation;

// The SHA-256 of a whole file, streamed through one small buffer so that even the largest file
// is hashed from cache rather than from freshly allocated memory.
class FileDigest {
public:
    // Files above this are refused with HarnessError(limit).
    static constexpr qint64 maxBytes = 16 * 1024 * 1024;
    // A NUL byte this early marks a file as binary.
    static constexpr qsizetype binaryProbeBytes = 8 * 1024;

    // Reads `fd` (a regular file) from its start to its end, handing every block in order to
    // `consume`, and returns the lower-case hex digest.
    static QByteArray ofFile(int fd, qint64 sizeHint, const OperationCancellation& cancellation,
                             const std::function<void(QByteArrayView)>& consume = {});
    static QByteArray of(QByteArrayView bytes);
    static bool looksBinary(QByteArrayView bytes);
};

} // namespace kestrolan
