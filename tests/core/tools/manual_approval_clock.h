#pragma once

#include "tools/approval_clock.h"

#include <QTimeZone>
#include <algorithm>
#include <chrono>
#include <vector>

namespace kestrolan::test {

// A clock that stands still until the test moves it; its alarms fire only when the test says.
class ManualApprovalClock final : public ApprovalClock {
public:
    QDateTime now() const override { return m_now; }

    std::unique_ptr<ApprovalAlarm> alarm(const QDateTime& when,
                                         std::function<void()> fire) override {
        auto alarm = std::make_unique<Alarm>(this, when, std::move(fire));
        m_alarms.push_back(alarm.get());
        return alarm;
    }

    void advance(std::chrono::seconds by) { m_now = m_now.addSecs(by.count()); }

    // Fires every alarm whose time has come and that is still wanted.
    void fireDue() {
        const auto alarms = m_alarms;
        for (Alarm* alarm : alarms) {
            const bool wanted =
                std::find(m_alarms.begin(), m_alarms.end(), alarm) != m_alarms.end();
            if (wanted && alarm->when <= m_now)
                alarm->fire();
        }
    }

    qsizetype alarmCount() const { return qsizetype(m_alarms.size()); }

private:
    struct Alarm final : ApprovalAlarm {
        Alarm(ManualApprovalClock* owner, QDateTime time, std::function<void()> fire)
            : ApprovalAlarm(std::move(fire))
            , clock(owner)
            , when(std::move(time)) {}
        ~Alarm() override { std::erase(clock->m_alarms, this); }
        ManualApprovalClock* clock;
        QDateTime when;
    };

    QDateTime m_now{QDate(2026, 3, 1), QTime(9, 0), QTimeZone::utc()};
    std::vector<Alarm*> m_alarms;
};

} // namespace kestrolan::test
