#pragma once

#include <QByteArrayView>
#include <QString>

namespace kestrolan {

// What one shell command call answers: the tool-result JSON, and whether the command was
// stopped rather than finishing on its own.
struct ShellOutcome {
    QString text;
    bool interrupted = false;

    // Largest tool result in UTF-8 bytes; longer output is halved until the result fits.
    static constexpr qsizetype maxResultBytes = 32768;

    // The result of a finished run: its raw output (invalid UTF-8 is repaired), the exit status
    // (-1 when none was obtained) and the runner's flags.
    static ShellOutcome fromRun(QByteArrayView output, qint32 exitStatus, bool truncated,
                                bool timedOut);
};

} // namespace kestrolan
