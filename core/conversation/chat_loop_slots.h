#pragma once

#include <QCoroTask>
#include <QObject>
#include <QSet>
#include <QUuid>
#include <deque>
#include <memory>
#include <stop_token>

namespace kestrolan {

// The turn loops the whole application may run at once. A session takes a slot for the length
// of its turn; later sessions wait their turn in arrival order. Confined to the main thread, and
// must outlive every session that uses it.
class ChatLoopSlots {
public:
    static constexpr qsizetype maxActive = 2;
    static constexpr qsizetype maxWaiting = 100;

    ChatLoopSlots() = default;
    ChatLoopSlots(const ChatLoopSlots&) = delete;
    ChatLoopSlots& operator=(const ChatLoopSlots&) = delete;

    // The one instance that every chat session of the process shares.
    static ChatLoopSlots& shared();

    // True once session `id` holds a slot; false at once when `stop` has fired or the queue is
    // full, and false when `stop` fires while waiting. A caller that gets true must release.
    QCoro::Task<bool> acquire(QUuid id, std::stop_token stop);
    // Frees the slot of `id` and hands it to the first caller still waiting. Releasing an id
    // that holds no slot does nothing.
    void release(QUuid id);

    bool isActive(QUuid id) const { return m_active.contains(id); }
    qsizetype activeCount() const { return m_active.size(); }
    qsizetype waitingCount() const { return qsizetype(m_waiters.size()); }

private:
    struct Waiter;
    struct Withdraw;
    class WaitAwaiter;

    void withdraw(const std::shared_ptr<Waiter>& waiter);
    void settle(const std::shared_ptr<Waiter>& waiter, bool granted);

    QSet<QUuid> m_active;
    std::deque<std::shared_ptr<Waiter>> m_waiters;
    // Waiters resume from the event loop, never inside the caller of release(); what is still
    // queued here is dropped with the object.
    QObject m_context;
};

} // namespace kestrolan
