#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>
#include <memory>

namespace kestrolan {

// Measures how late the main event loop serves a 2 ms timer, for the desktop benchmarks. Off
// unless KESTROLAN_MEASURE_STALLS names a file; then each firing appends a line "WALL_MS
// STALL_US" (wall-clock milliseconds since the epoch, and how much later than due the timer
// ran), flushed every second, so a run stopped at any moment leaves its samples behind.
class StallProbe : public QObject {
public:
    static constexpr int intervalMs = 2;

    // A running probe when the environment asks for one, else null.
    static std::unique_ptr<StallProbe> fromEnvironment();

    explicit StallProbe(const QString& path, QObject* parent = nullptr);
    ~StallProbe() override;

private:
    void sample();
    void flush();

    QFile m_file;
    QByteArray m_pending;
    QElapsedTimer m_clock;
    qint64 m_lastNs = 0;
    QTimer m_timer;
    QTimer m_flushTimer;
};

} // namespace kestrolan
