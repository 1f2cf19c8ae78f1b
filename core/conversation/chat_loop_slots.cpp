#include "conversation/chat_loop_slots.h"

#include "support/wait_list.h"

#include <algorithm>
#include <coroutine>
#include <optional>

namespace kestrolan {

struct ChatLoopSlots::Waiter {
    QUuid id;
    std::stop_token stop;
    std::coroutine_handle<> handle;
    // Set exactly once, by whoever decides the outcome; only that one resumes the caller.
    std::optional<bool> granted;
};

// May run on any thread that asks for the stop, so it only posts to the owner's thread.
struct ChatLoopSlots::Withdraw {
    ChatLoopSlots* slots;
    std::shared_ptr<Waiter> waiter;

    void operator()() const {
        QMetaObject::invokeMethod(
            &slots->m_context, [slots = slots, waiter = waiter] { slots->withdraw(waiter); },
            Qt::QueuedConnection);
    }
};

// Holds a plain pointer: the caller keeps the waiter alive, and GCC 12 can destroy an awaiter
// temporary twice, which would drop a shared owner too many.
class ChatLoopSlots::WaitAwaiter {
public:
    explicit WaitAwaiter(Waiter* waiter)
        : m_waiter(waiter) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> handle) noexcept { m_waiter->handle = handle; }
    bool await_resume() const noexcept { return m_waiter->granted.value_or(false); }

private:
    Waiter* m_waiter;
};

ChatLoopSlots& ChatLoopSlots::shared() {
    static ChatLoopSlots instance;
    return instance;
}

QCoro::Task<bool> ChatLoopSlots::acquire(QUuid id, std::stop_token stop) {
    if (stop.stop_requested())
        co_return false;
    if (m_active.size() < maxActive) {
        m_active.insert(id);
        co_return true;
    }
    if (waitingCount() >= maxWaiting)
        co_return false;

    auto waiter = std::make_shared<Waiter>(Waiter{id, stop, {}, std::nullopt});
    m_waiters.push_back(waiter);
    const std::stop_callback<Withdraw> onStop(stop, Withdraw{this, waiter});
    WaitAwaiter awaiter(waiter.get());
    const bool granted = co_await awaiter;
    // The slot arrived after the caller gave up but before it resumed: pass it on untaken.
    if (granted && stop.stop_requested()) {
        release(id);
        co_return false;
    }
    co_return granted;
}

void ChatLoopSlots::release(QUuid id) {
    if (!m_active.remove(id))
        return;
    while (!m_waiters.empty() && m_active.size() < maxActive) {
        const auto next = std::move(m_waiters.front());
        m_waiters.pop_front();
        // A caller whose stop has fired is no longer waiting, even if its withdrawal is still
        // on its way through the event loop.
        const bool granted = !next->stop.stop_requested();
        if (granted)
            m_active.insert(next->id);
        settle(next, granted);
    }
}

void ChatLoopSlots::withdraw(const std::shared_ptr<Waiter>& waiter) {
    const auto position = std::find(m_waiters.begin(), m_waiters.end(), waiter);
    if (position == m_waiters.end())
        return;
    m_waiters.erase(position);
    settle(waiter, false);
}

void ChatLoopSlots::settle(const std::shared_ptr<Waiter>& waiter, bool granted) {
    waiter->granted = granted;
    resumeLater(m_context, waiter->handle);
}

} // namespace kestrolan
