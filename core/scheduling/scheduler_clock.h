#pragma once

#include <QDateTime>
#include <chrono>
#include <functional>

namespace kestrolan {

// Where the scheduler learns the time and sleeps. Injected so that tests move the wall clock,
// suspend the machine and jump the clock without waiting.
class SchedulerClock {
public:
    virtual ~SchedulerClock() = default;

    // The wall clock, in UTC.
    virtual QDateTime now() const = 0;
    // Calls `wake` once after `delay` of running time (a suspended machine does not count it),
    // or earlier when the machine resumes; a later call replaces the pending one.
    virtual void wakeAfter(std::chrono::milliseconds delay, std::function<void()> wake) = 0;
    // Drops the pending wake.
    virtual void cancel() = 0;
};

} // namespace kestrolan
