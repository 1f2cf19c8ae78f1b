#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QNetworkReply>
#include <QPointer>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stop_token>

namespace kestrolan {

// Reads one response as it arrives, so that limits are enforced while reading. Owns the reply;
// a stop request or the total time-out aborts the transfer.
class ReplyReader {
public:
    ReplyReader(QNetworkReply* reply, std::stop_token stop, std::chrono::milliseconds total);
    ~ReplyReader();
    ReplyReader(const ReplyReader&) = delete;
    ReplyReader& operator=(const ReplyReader&) = delete;

    // The next piece of the body, or nothing once it has ended. Throws CancellationError after a
    // stop request and TransportError when no HTTP answer arrived or time ran out.
    QCoro::Task<std::optional<QByteArray>> next();

    // Reads the rest of the body, failing with ClientError::responseTooLarge past `limit`.
    QCoro::Task<QByteArray> readAll(qsizetype limit);
    // Reads at most `limit` bytes of the rest and abandons the transfer after that.
    QCoro::Task<QByteArray> readUpTo(qsizetype limit);

    // Valid once next() has returned for the first time.
    std::optional<int> status() const;
    QByteArray header(const QByteArray& name) const;
    // True when the connection broke after the headers: the body is incomplete.
    bool truncated() const { return m_truncated; }

    void abort();

private:
    QPointer<QNetworkReply> m_reply;
    QTimer m_totalTimer;
    std::atomic<bool> m_cancelled{false};
    bool m_timedOut = false;
    bool m_truncated = false;
    std::optional<std::stop_callback<std::function<void()>>> m_onStop;
};

} // namespace kestrolan
