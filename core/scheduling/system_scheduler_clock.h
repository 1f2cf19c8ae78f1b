#pragma once

#include "scheduling/scheduler_clock.h"

#include <QObject>
#include <QTimer>

namespace kestrolan {

// The system clock with a Qt timer; a resume from sleep (logind's PrepareForSleep(false) on the
// system bus, where there is one) wakes the scheduler at once instead of within the minute.
class SystemSchedulerClock : public QObject, public SchedulerClock {
    Q_OBJECT

public:
    explicit SystemSchedulerClock(QObject* parent = nullptr);

    QDateTime now() const override;
    void wakeAfter(std::chrono::milliseconds delay, std::function<void()> wake) override;
    void cancel() override;

private Q_SLOTS:
    void prepareForSleep(bool sleeping);

private:
    void fire();

    QTimer m_timer;
    std::function<void()> m_wake;
};

} // namespace kestrolan
