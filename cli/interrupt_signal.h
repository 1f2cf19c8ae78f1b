#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <memory>

namespace kestrolan::cli {

// SIGINT delivered on the event loop: the handler only writes to a pipe that the loop watches.
// A second SIGINT before the first was handled ends the process at once with status 130, so a
// turn that does not stop can still be left.
class InterruptSignal : public QObject {
    Q_OBJECT

public:
    explicit InterruptSignal(QObject* parent = nullptr);
    // Puts the previous SIGINT disposition back.
    ~InterruptSignal() override;
    InterruptSignal(const InterruptSignal&) = delete;
    InterruptSignal& operator=(const InterruptSignal&) = delete;

    // Ready for the next SIGINT: until then a second one ends the process.
    void rearm();

Q_SIGNALS:
    void interrupted();

private:
    int m_pipe[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> m_notifier;
};

} // namespace kestrolan::cli
