#pragma once

#include "tools/shell_outcome.h"

#include <QString>
#include <QUrl>
#include <mutex>
#include <optional>

struct kr_command;

namespace kestrolan {

// One "run_shell" tool call: /bin/sh -c in a private temporary folder, stopped by its deadline
// or by cancel() from another thread. Lives for one call; the native handle goes with it.
class ShellCommand {
public:
    // Size of the output buffer; a command that fills it is stopped.
    static constexpr qsizetype outputCapacity = 24576;

    ShellCommand();
    ~ShellCommand();
    ShellCommand(const ShellCommand&) = delete;
    ShellCommand& operator=(const ShellCommand&) = delete;

    // False when the native handle could not be made (memory exhausted).
    bool hasHandle() const;

    // Stops a run in progress, or makes the next run refuse to start. Any thread.
    void cancel();

    // Runs `command` in `cwd` (a file URL) and blocks until it and its descendants are gone.
    // Throws HarnessError (accessDenied: nothing ran; interruptedMutation: the outcome is
    // unknown), or Error when the temporary folder cannot be made.
    ShellOutcome runOutcome(const QString& command, const QUrl& cwd, quint32 timeoutMilliseconds,
                            const std::optional<QString>& profile = std::nullopt);

private:
    mutable std::mutex m_lock;
    kr_command* m_handle = nullptr;
};

} // namespace kestrolan
