#include "tools/operation_cancellation.h"

#include "error.h"
#include "tools/harness_error.h"
#include "tools/shell_command.h"

namespace kestrolan {

OperationCancellation::OperationCancellation()
    : OperationCancellation(std::chrono::steady_clock::now() + operationBudget) {}

OperationCancellation::OperationCancellation(std::chrono::steady_clock::time_point deadline)
    : m_deadline(deadline) {}

void OperationCancellation::cancel() {
    const std::lock_guard lock(m_lock);
    m_cancelled = true;
    if (m_shell)
        m_shell->cancel();
}

void OperationCancellation::attach(std::shared_ptr<ShellCommand> shell) {
    const std::lock_guard lock(m_lock);
    m_shell = std::move(shell);
    if (m_cancelled && m_shell)
        m_shell->cancel();
}

void OperationCancellation::check() const {
    const std::lock_guard lock(m_lock);
    if (m_cancelled)
        throw CancellationError();
    if (std::chrono::steady_clock::now() >= m_deadline)
        throw HarnessError(HarnessError::Kind::limit);
}

bool OperationCancellation::isCancelled() const {
    const std::lock_guard lock(m_lock);
    return m_cancelled;
}

} // namespace kestrolan
