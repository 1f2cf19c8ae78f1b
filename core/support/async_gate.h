#pragma once

#include <QObject>
#include <coroutine>
#include <deque>
#include <utility>

namespace kestrolan {

// Lets one coroutine at a time through, the others in arrival order, without blocking the
// thread: what makes an object an actor on the main thread. Owner-confined to one thread.
//
//     auto turn = co_await m_gate.enter();   // held until `turn` goes out of scope
class AsyncGate {
public:
    class Turn {
    public:
        explicit Turn(AsyncGate* gate)
            : m_gate(gate) {}
        Turn(Turn&& other) noexcept
            : m_gate(std::exchange(other.m_gate, nullptr)) {}
        Turn& operator=(Turn&&) = delete;
        ~Turn() {
            if (m_gate)
                m_gate->leave();
        }

    private:
        AsyncGate* m_gate;
    };

    class Awaiter {
    public:
        explicit Awaiter(AsyncGate& gate)
            : m_gate(gate) {}
        bool await_ready() {
            if (m_gate.m_busy)
                return false;
            m_gate.m_busy = true;
            return true;
        }
        void await_suspend(std::coroutine_handle<> waiter) { m_gate.m_waiters.push_back(waiter); }
        Turn await_resume() { return Turn(&m_gate); }

    private:
        AsyncGate& m_gate;
    };

    AsyncGate() = default;
    AsyncGate(const AsyncGate&) = delete;
    AsyncGate& operator=(const AsyncGate&) = delete;

    Awaiter enter() { return Awaiter(*this); }
    bool busy() const { return m_busy; }

private:
    void leave() {
        if (m_waiters.empty()) {
            m_busy = false;
            return;
        }
        // The gate passes straight to the next waiter, resumed from the event loop rather than
        // inside the leaving coroutine's frame. Dropped with the gate if it dies first.
        const auto next = m_waiters.front();
        m_waiters.pop_front();
        QMetaObject::invokeMethod(
            &m_context, [next] { next.resume(); }, Qt::QueuedConnection);
    }

    QObject m_context;
    bool m_busy = false;
    std::deque<std::coroutine_handle<>> m_waiters;
};

} // namespace kestrolan
