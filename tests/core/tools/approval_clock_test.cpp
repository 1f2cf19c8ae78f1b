#include "run_task.h"
#include "tools/approval_clock.h"

#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

TEST(ApprovalClock, AlarmsFireOnceOnTheEventLoopUnlessDropped) {
    ApprovalClock clock;
    int dropped = 0;
    auto unwanted = clock.alarm(clock.now(), [&] { ++dropped; });
    unwanted.reset();

    // An alarm may end itself from inside its own call-back.
    int fired = 0;
    std::unique_ptr<ApprovalAlarm> alarm;
    alarm = clock.alarm(clock.now(), [&] {
        ++fired;
        alarm.reset();
    });
    EXPECT_EQ(fired, 0); // never from inside alarm()
    runUntil([&] { return fired > 0; });
    EXPECT_EQ(fired, 1);
    EXPECT_FALSE(alarm);

    // Timers of the same moment fire in order: the dropped one would have come first.
    int later = 0;
    auto last = clock.alarm(clock.now(), [&] { ++later; });
    runUntil([&] { return later > 0; });
    EXPECT_EQ(dropped, 0);
    last->fire(); // already fired: nothing more happens
    EXPECT_EQ(later, 1);
}
