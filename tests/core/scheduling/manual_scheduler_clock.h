#pragma once

#include "scheduling/scheduler_clock.h"

#include <QDateTime>
#include <functional>
#include <optional>

namespace kestrolan::test {

// A scheduler clock that moves only when the test says so. Running time and the wall clock move
// together; a suspend moves the wall clock alone and then resumes, delivering the pending wake
// at once as the system clock does on resume.
class ManualSchedulerClock final : public SchedulerClock {
public:
    explicit ManualSchedulerClock(QDateTime start)
        : m_now(start.toUTC()) {}

    QDateTime now() const override { return m_now; }

    void wakeAfter(std::chrono::milliseconds delay, std::function<void()> wake) override {
        m_deadline = m_running + delay;
        m_wake = std::move(wake);
    }

    void cancel() override {
        m_deadline.reset();
        m_wake = nullptr;
    }

    bool hasPendingWake() const { return m_wake != nullptr; }

    // Time runs on to the pending wake, if that comes no later than the wall time `limit`, and
    // delivers it.
    bool runToDeadline(const QDateTime& limit) {
        if (!m_wake)
            return false;
        const auto remaining = std::max(*m_deadline - m_running, std::chrono::milliseconds(0));
        if (m_now.addMSecs(remaining.count()) > limit)
            return false;
        m_now = m_now.addMSecs(remaining.count());
        m_running += remaining;
        fire();
        return true;
    }

    // Time runs on to `end` without reaching the pending wake (see runToDeadline).
    void runTo(const QDateTime& end) {
        const qint64 delta = std::max<qint64>(m_now.msecsTo(end), 0);
        m_now = m_now.addMSecs(delta);
        m_running += std::chrono::milliseconds(delta);
    }

    // The machine sleeps for `duration` of wall time, then resumes.
    void suspend(std::chrono::seconds duration) {
        m_now = m_now.addSecs(duration.count());
        fire();
    }

    // The wall clock is set, as by a user or time synchronisation; running time stands still
    // and nothing is woken.
    void setWallClock(const QDateTime& now) { m_now = now.toUTC(); }

private:
    void fire() {
        m_deadline.reset();
        if (auto wake = std::exchange(m_wake, nullptr))
            wake();
    }

    QDateTime m_now;
    // Running time since the start, which a suspend or a wall-clock change does not move.
    std::chrono::milliseconds m_running{0};
    std::optional<std::chrono::milliseconds> m_deadline;
    std::function<void()> m_wake;
};

} // namespace kestrolan::test
