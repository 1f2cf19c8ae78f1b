#pragma once

#include <QDateTime>
#include <functional>
#include <memory>

namespace kestrolan {

// A pending call-back at a set time. Destroying it cancels it; it may be destroyed from inside
// its own call-back.
class ApprovalAlarm {
public:
    explicit ApprovalAlarm(std::function<void()> fire);
    virtual ~ApprovalAlarm();
    ApprovalAlarm(const ApprovalAlarm&) = delete;
    ApprovalAlarm& operator=(const ApprovalAlarm&) = delete;

    // Runs the call-back once; later calls do nothing.
    void fire();

private:
    std::function<void()> m_fire;
};

// Where approvals get the time and their expiry timer from. Tests substitute a clock they
// drive by hand.
class ApprovalClock {
public:
    virtual ~ApprovalClock() = default;

    virtual QDateTime now() const;
    // Fires on the calling thread's event loop once `when` has come.
    virtual std::unique_ptr<ApprovalAlarm> alarm(const QDateTime& when, std::function<void()> fire);
};

} // namespace kestrolan
