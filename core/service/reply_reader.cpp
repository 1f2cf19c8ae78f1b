#include "service/reply_reader.h"

#include "service/client_error.h"
#include "service/transport_error.h"

#include <array>
#include <coroutine>

namespace kestrolan {

namespace {

// Qt reports HTTP statuses as errors too; those still carry a complete answer.
bool isTransportFailure(QNetworkReply::NetworkError error) {
    return error != QNetworkReply::NoError &&
           (error < 200 || error == QNetworkReply::ProtocolFailure);
}

// Resumes the reader when the reply has news: bytes, its end or an error.
class ReplyActivity {
public:
    explicit ReplyActivity(QNetworkReply* reply)
        : m_reply(reply) {}

    bool await_ready() const { return m_reply->bytesAvailable() > 0 || m_reply->isFinished(); }

    void await_suspend(std::coroutine_handle<> reader) {
        const auto wake = [this, reader] {
            disconnectAll();
            reader.resume();
        };
        m_connections = {
            QObject::connect(m_reply, &QNetworkReply::readyRead, m_reply, wake),
            QObject::connect(m_reply, &QNetworkReply::finished, m_reply, wake),
            QObject::connect(m_reply, &QNetworkReply::errorOccurred, m_reply, wake),
            // A reply deleted with its network manager (the client is being destroyed) reports
            // nothing else. Resumed from the event loop, not from inside that destructor.
            QObject::connect(m_reply, &QObject::destroyed,
                             [this, reader] {
                                 disconnectAll();
                                 QTimer::singleShot(0, [reader] { reader.resume(); });
                             }),
        };
    }

    void await_resume() const noexcept {}

private:
    void disconnectAll() {
        for (const auto& connection : m_connections)
            QObject::disconnect(connection);
    }

    QNetworkReply* m_reply;
    std::array<QMetaObject::Connection, 4> m_connections;
};

} // namespace

ReplyReader::ReplyReader(QNetworkReply* reply, std::stop_token stop,
                         std::chrono::milliseconds total)
    : m_reply(reply) {
    m_totalTimer.setSingleShot(true);
    QObject::connect(&m_totalTimer, &QTimer::timeout, [this] {
        m_timedOut = true;
        abort();
    });
    m_totalTimer.start(total);
    m_onStop.emplace(std::move(stop), [this] {
        m_cancelled = true;
        // The stop may come from another thread; the reply is aborted on its own.
        if (auto* target = m_reply.data())
            QMetaObject::invokeMethod(target, &QNetworkReply::abort, Qt::QueuedConnection);
    });
}

ReplyReader::~ReplyReader() {
    m_onStop.reset();
    if (m_reply) {
        m_reply->disconnect();
        if (!m_reply->isFinished())
            m_reply->abort();
        m_reply->deleteLater();
    }
}

void ReplyReader::abort() {
    if (m_reply && !m_reply->isFinished())
        m_reply->abort();
}

std::optional<int> ReplyReader::status() const {
    if (!m_reply)
        return std::nullopt;
    const auto value = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    return value.isValid() ? std::optional(value.toInt()) : std::nullopt;
}

QByteArray ReplyReader::header(const QByteArray& name) const {
    return m_reply ? m_reply->rawHeader(name) : QByteArray();
}

QCoro::Task<std::optional<QByteArray>> ReplyReader::next() {
    for (;;) {
        if (m_cancelled || !m_reply)
            throw CancellationError();
        if (const auto available = m_reply->bytesAvailable(); available > 0)
            co_return m_reply->read(available);
        if (m_reply->isFinished()) {
            if (isTransportFailure(m_reply->error())) {
                if (!status())
                    throw m_timedOut ? TransportError(TransportError::Kind::timedOut)
                                     : TransportError::from(m_reply->error());
                m_truncated = true;
            } else if (!status()) {
                throw ClientError(ClientError::Kind::invalidResponse);
            }
            co_return std::nullopt;
        }
        co_await ReplyActivity(m_reply.data());
    }
}

QCoro::Task<QByteArray> ReplyReader::readAll(qsizetype limit) {
    QByteArray body;
    while (auto piece = co_await next()) {
        if (piece->size() > limit - body.size()) {
            abort();
            throw ClientError(ClientError::Kind::responseTooLarge);
        }
        body += *piece;
    }
    if (m_truncated)
        throw m_timedOut ? TransportError(TransportError::Kind::timedOut)
                         : TransportError::from(m_reply->error());
    co_return body;
}

QCoro::Task<QByteArray> ReplyReader::readUpTo(qsizetype limit) {
    QByteArray body;
    while (auto piece = co_await next()) {
        body += piece->left(limit - body.size());
        if (body.size() >= limit) {
            abort();
            break;
        }
    }
    co_return body;
}

} // namespace kestrolan
