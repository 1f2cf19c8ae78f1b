#pragma once

#include "support/wait_list.h"

#include <QByteArray>
#include <QCoroTask>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <coroutine>
#include <deque>
#include <optional>

namespace kestrolan::cli {

// Lines of a file descriptor (standard input) read as they arrive, without ever blocking the
// event loop: the descriptor is read only when it is ready.
class InputReader : public QObject {
    Q_OBJECT

public:
    explicit InputReader(int fd, QObject* parent = nullptr);

    // The next complete line without its line end; the last, unterminated piece at the end of
    // input counts as a line. Empty once the input has ended, and after interrupt().
    QCoro::Task<std::optional<QString>> nextLine();
    // Ends the waits of nextLine() with no line; the input stays open.
    void interrupt();
    // Puts a line back, to be read first.
    void unread(QString line);
    // Everything up to the end of the input, including what nextLine() has not taken.
    QCoro::Task<QString> readAll();
    bool atEnd() const { return m_ended && m_lines.empty(); }

Q_SIGNALS:
    // A line arrived or the input ended.
    void changed();

private:
    void readReady();

    int m_fd;
    QSocketNotifier m_notifier;
    QByteArray m_pending; // bytes after the last line end
    std::deque<QString> m_lines;
    bool m_ended = false;
    bool m_interrupted = false;
    WaitList m_waiters;
};

} // namespace kestrolan::cli
