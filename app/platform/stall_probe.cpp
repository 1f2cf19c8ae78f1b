#include "platform/stall_probe.h"

#include <QDateTime>

namespace kestrolan {

std::unique_ptr<StallProbe> StallProbe::fromEnvironment() {
    const QString path = qEnvironmentVariable("KESTROLAN_MEASURE_STALLS");
    if (path.isEmpty())
        return nullptr;
    return std::make_unique<StallProbe>(path);
}

StallProbe::StallProbe(const QString& path, QObject* parent)
    : QObject(parent)
    , m_file(path) {
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qWarning("kestrolan: cannot write stall samples to %s", qPrintable(path));
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(intervalMs);
    connect(&m_timer, &QTimer::timeout, this, &StallProbe::sample);
    m_flushTimer.setInterval(1000);
    connect(&m_flushTimer, &QTimer::timeout, this, &StallProbe::flush);
    m_clock.start();
    m_lastNs = m_clock.nsecsElapsed();
    m_timer.start();
    m_flushTimer.start();
}

StallProbe::~StallProbe() {
    flush();
}

void StallProbe::sample() {
    const qint64 now = m_clock.nsecsElapsed();
    const qint64 lateUs = std::max<qint64>(0, (now - m_lastNs) / 1000 - intervalMs * 1000);
    m_lastNs = now;
    m_pending += QByteArray::number(QDateTime::currentMSecsSinceEpoch()) + ' ' +
                 QByteArray::number(lateUs) + '\n';
}

void StallProbe::flush() {
    if (m_file.isOpen() && !m_pending.isEmpty()) {
        m_file.write(m_pending);
        m_file.flush();
    }
    m_pending.clear();
}

} // namespace kestrolan
