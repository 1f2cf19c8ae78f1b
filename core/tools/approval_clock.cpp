#include "tools/approval_clock.h"

#include <QTimer>
#include <algorithm>
#include <utility>

namespace kestrolan {

namespace {

class TimerAlarm final : public ApprovalAlarm {
public:
    TimerAlarm(std::function<void()> fire, qint64 delayMilliseconds)
        : ApprovalAlarm(std::move(fire))
        , m_timer(new QTimer()) {
        m_timer->setSingleShot(true);
        QObject::connect(m_timer, &QTimer::timeout, m_timer, [this] { this->fire(); });
        m_timer->start(std::chrono::milliseconds(delayMilliseconds));
    }
    ~TimerAlarm() override {
        // The timer may be the one delivering the call-back that destroys this alarm.
        m_timer->disconnect();
        m_timer->stop();
        m_timer->deleteLater();
    }

private:
    QTimer* m_timer;
};

} // namespace

ApprovalAlarm::ApprovalAlarm(std::function<void()> fire)
    : m_fire(std::move(fire)) {}

ApprovalAlarm::~ApprovalAlarm() = default;

void ApprovalAlarm::fire() {
    // Taken out first: the call-back may destroy this alarm.
    if (auto callback = std::exchange(m_fire, {}))
        callback();
}

QDateTime ApprovalClock::now() const {
    return QDateTime::currentDateTimeUtc();
}

std::unique_ptr<ApprovalAlarm> ApprovalClock::alarm(const QDateTime& when,
                                                    std::function<void()> fire) {
    return std::make_unique<TimerAlarm>(std::move(fire), std::max<qint64>(0, now().msecsTo(when)));
}

} // namespace kestrolan
