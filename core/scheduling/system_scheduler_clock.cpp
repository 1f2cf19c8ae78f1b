#include "scheduling/system_scheduler_clock.h"

#include <QDBusConnection>

namespace kestrolan {

SystemSchedulerClock::SystemSchedulerClock(QObject* parent)
    : QObject(parent) {
    m_timer.setSingleShot(true);
    // Coarse timers may be 5% late, three seconds in a minute.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &SystemSchedulerClock::fire);
    QDBusConnection::systemBus().connect(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
        SLOT(prepareForSleep(bool)));
}

QDateTime SystemSchedulerClock::now() const {
    return QDateTime::currentDateTimeUtc();
}

void SystemSchedulerClock::wakeAfter(std::chrono::milliseconds delay, std::function<void()> wake) {
    m_wake = std::move(wake);
    m_timer.start(std::max(delay, std::chrono::milliseconds(0)));
}

void SystemSchedulerClock::cancel() {
    m_timer.stop();
    m_wake = nullptr;
}

void SystemSchedulerClock::prepareForSleep(bool sleeping) {
    if (!sleeping && m_timer.isActive())
        fire();
}

void SystemSchedulerClock::fire() {
    m_timer.stop();
    if (auto wake = std::exchange(m_wake, nullptr))
        wake();
}

} // namespace kestrolan
