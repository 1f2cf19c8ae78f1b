#pragma once

#include <QObject>
#include <coroutine>
#include <utility>
#include <vector>

namespace kestrolan {

// Resumes `handle` from the event loop of `context`'s thread, never inside the caller; dropped
// if `context` is destroyed first.
inline void resumeLater(QObject& context, std::coroutine_handle<> handle) {
    QMetaObject::invokeMethod(
        &context, [handle] { handle.resume(); }, Qt::QueuedConnection);
}

// Coroutines waiting for their owner's state to change. Each waits in a loop that re-checks the
// state: `while (busy) co_await waiters.next();`. They resume from the event loop, never inside
// the call that changed the state, and not at all once the list is gone.
class WaitList {
public:
    // Holds a plain pointer: GCC 12 can destroy an awaiter temporary twice.
    struct Awaiter {
        WaitList* list;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> handle) { list->m_waiting.push_back(handle); }
        void await_resume() const noexcept {}
    };

    Awaiter next() { return Awaiter{this}; }

    void resumeAll() {
        for (const auto handle : std::exchange(m_waiting, {}))
            resumeLater(m_context, handle);
    }

private:
    std::vector<std::coroutine_handle<>> m_waiting;
    QObject m_context;
};

} // namespace kestrolan
