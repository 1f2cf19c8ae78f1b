#include "input_reader.h"

#include <cerrno>
#include <unistd.h>

namespace kestrolan::cli {

InputReader::InputReader(int fd, QObject* parent)
    : QObject(parent)
    , m_fd(fd)
    , m_notifier(fd, QSocketNotifier::Read) {
    connect(&m_notifier, &QSocketNotifier::activated, this, &InputReader::readReady);
}

void InputReader::readReady() {
    char buffer[65'536];
    const ssize_t count = ::read(m_fd, buffer, sizeof buffer);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count > 0) {
        m_pending.append(buffer, qsizetype(count));
        qsizetype end = 0;
        while ((end = m_pending.indexOf('\n')) >= 0) {
            QByteArray line = m_pending.left(end);
            if (line.endsWith('\r'))
                line.chop(1);
            m_lines.push_back(QString::fromUtf8(line));
            m_pending.remove(0, end + 1);
        }
    } else {
        // End of input, or a descriptor that cannot be read: nothing more will come.
        m_notifier.setEnabled(false);
        m_ended = true;
        if (!m_pending.isEmpty())
            m_lines.push_back(QString::fromUtf8(std::exchange(m_pending, {})));
    }
    m_waiters.resumeAll();
    Q_EMIT changed();
}

void InputReader::interrupt() {
    m_interrupted = true;
    m_waiters.resumeAll();
}

void InputReader::unread(QString line) {
    m_lines.push_front(std::move(line));
    m_waiters.resumeAll();
}

QCoro::Task<std::optional<QString>> InputReader::nextLine() {
    while (m_lines.empty() && !m_ended && !m_interrupted)
        co_await m_waiters.next();
    if (std::exchange(m_interrupted, false) || m_lines.empty())
        co_return std::nullopt;
    QString line = std::move(m_lines.front());
    m_lines.pop_front();
    co_return line;
}

QCoro::Task<QString> InputReader::readAll() {
    while (!m_ended)
        co_await m_waiters.next();
    QStringList lines;
    while (!m_lines.empty()) {
        lines.append(std::move(m_lines.front()));
        m_lines.pop_front();
    }
    co_return lines.join(u'\n');
}

} // namespace kestrolan::cli
