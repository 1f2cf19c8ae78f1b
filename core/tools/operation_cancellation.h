#pragma once

#include <chrono>
#include <memory>
#include <mutex>

namespace kestrolan {

class ShellCommand;

// Stops one local operation from another thread, and bounds how long it may take. Shared by the
// executor, which cancels, and the worker thread, which checks.
class OperationCancellation {
public:
    // Time a local operation gets from its start.
    static constexpr std::chrono::seconds operationBudget{5};

    OperationCancellation();
    explicit OperationCancellation(std::chrono::steady_clock::time_point deadline);
    OperationCancellation(const OperationCancellation&) = delete;
    OperationCancellation& operator=(const OperationCancellation&) = delete;

    // Marks the operation cancelled and stops the attached command, if any.
    void cancel();

    // The command that a later cancel() must reach; one cancelled already is stopped at once.
    void attach(std::shared_ptr<ShellCommand> shell);

    // Throws CancellationError once cancelled, HarnessError(limit) once the deadline has passed.
    void check() const;

    bool isCancelled() const;

private:
    // Taken before the command's own lock, never after it.
    mutable std::mutex m_lock;
    bool m_cancelled = false;
    std::shared_ptr<ShellCommand> m_shell;
    std::chrono::steady_clock::time_point m_deadline;
};

} // namespace kestrolan
