#include "conversation/chat_loop_slots.h"
#include "run_task.h"

#include <QCoreApplication>
#include <QThread>
#include <gtest/gtest.h>
#include <thread>

using namespace kestrolan;
using test::runUntil;

namespace {

// One session asking for a slot: the answer once it arrives, and the thread it arrived on.
class Attempt {
public:
    explicit Attempt(ChatLoopSlots& slots, QUuid sessionID = QUuid::createUuid())
        : id(sessionID)
        , m_task(record(slots.acquire(id, m_stop.get_token()), this)) {}

    void stop() { m_stop.request_stop(); }
    bool answered() const { return granted.has_value(); }

    const QUuid id;
    std::optional<bool> granted;
    QThread* resumedOn = nullptr;

private:
    static QCoro::Task<void> record(QCoro::Task<bool> acquiring, Attempt* attempt) {
        const bool answer = co_await acquiring;
        attempt->resumedOn = QThread::currentThread();
        attempt->granted = answer;
    }

    std::stop_source m_stop;
    QCoro::Task<void> m_task;
};

// Lets every answer already decided reach its caller.
void drainEvents() {
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
}

} // namespace

TEST(ChatLoopSlots, TwoLoopsRunAndTheRestGetFreedSlotsInArrivalOrder) {
    ChatLoopSlots slots;
    Attempt first(slots);
    Attempt second(slots);
    EXPECT_EQ(first.granted, true);
    EXPECT_EQ(second.granted, true);

    Attempt third(slots);
    Attempt fourth(slots);
    drainEvents();
    EXPECT_FALSE(third.answered());
    EXPECT_EQ(slots.waitingCount(), 2);

    // An id that holds no slot frees nothing, however often it is released.
    slots.release(QUuid::createUuid());
    slots.release(fourth.id);
    drainEvents();
    EXPECT_FALSE(third.answered());
    EXPECT_EQ(slots.activeCount(), 2);

    slots.release(first.id);
    runUntil([&] { return third.answered(); });
    EXPECT_EQ(third.granted, true);
    EXPECT_FALSE(fourth.answered());
    EXPECT_TRUE(slots.isActive(third.id));
    EXPECT_FALSE(slots.isActive(first.id));

    slots.release(first.id);
    drainEvents();
    EXPECT_FALSE(fourth.answered());

    slots.release(second.id);
    runUntil([&] { return fourth.answered(); });
    EXPECT_EQ(fourth.granted, true);
    EXPECT_EQ(slots.activeCount(), 2);
    EXPECT_EQ(slots.waitingCount(), 0);
}

TEST(ChatLoopSlots, AStoppedCallerOrAFullQueueGetsFalseAtOnce) {
    ChatLoopSlots slots;
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_FALSE(test::runTask(slots.acquire(QUuid::createUuid(), stopped.get_token())));
    EXPECT_EQ(slots.activeCount(), 0);

    Attempt first(slots);
    Attempt second(slots);
    std::vector<std::unique_ptr<Attempt>> waiting;
    for (int n = 0; n < ChatLoopSlots::maxWaiting; ++n)
        waiting.push_back(std::make_unique<Attempt>(slots));
    drainEvents();
    EXPECT_FALSE(waiting.back()->answered()); // the hundredth still waits
    EXPECT_EQ(slots.waitingCount(), 100);

    Attempt overflow(slots);
    EXPECT_EQ(overflow.granted, false);
    EXPECT_EQ(slots.waitingCount(), 100);

    // Once the queue moves, there is room again.
    slots.release(first.id);
    runUntil([&] { return waiting.front()->answered(); });
    Attempt later(slots);
    EXPECT_FALSE(later.answered());
    EXPECT_EQ(slots.waitingCount(), 100);

    // Every caller still waiting can give up, and none is left suspended.
    later.stop();
    for (auto& attempt : waiting)
        attempt->stop();
    runUntil([&] { return later.answered() && waiting.back()->answered(); });
    EXPECT_EQ(later.granted, false);
    EXPECT_EQ(slots.waitingCount(), 0);
    EXPECT_EQ(slots.activeCount(), 2);
}

TEST(ChatLoopSlots, ACallerStoppedWhileWaitingLeavesTheQueueAndIsNeverHandedASlot) {
    ChatLoopSlots slots;
    Attempt first(slots);
    Attempt second(slots);

    // Stopped from another thread, as a session torn down elsewhere may be; the answer still
    // arrives on the thread that waits.
    Attempt leaver(slots);
    Attempt stayer(slots);
    std::thread([&] { leaver.stop(); }).join();
    runUntil([&] { return leaver.answered(); });
    EXPECT_EQ(leaver.granted, false);
    EXPECT_EQ(leaver.resumedOn, QThread::currentThread());
    EXPECT_EQ(slots.waitingCount(), 1);

    // Stopped in the same moment the slot frees: its withdrawal has not been processed yet.
    Attempt late(slots);
    Attempt next(slots);
    late.stop();
    slots.release(first.id);
    EXPECT_TRUE(slots.isActive(stayer.id));
    EXPECT_FALSE(slots.isActive(late.id));
    runUntil([&] { return late.answered() && stayer.answered(); });
    EXPECT_EQ(late.granted, false);
    EXPECT_EQ(stayer.granted, true);
    EXPECT_FALSE(next.answered());

    // Stopped after the slot was handed over but before it resumed: the slot goes on.
    Attempt afterGrant(slots);
    slots.release(second.id);
    EXPECT_TRUE(slots.isActive(next.id));
    next.stop();
    runUntil([&] { return next.answered() && afterGrant.answered(); });
    EXPECT_EQ(next.granted, false);
    EXPECT_FALSE(slots.isActive(next.id));
    EXPECT_EQ(afterGrant.granted, true);
    EXPECT_TRUE(slots.isActive(afterGrant.id));
    EXPECT_EQ(slots.activeCount(), 2);
    EXPECT_EQ(slots.waitingCount(), 0);
}
