#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace kestrolan::devservice {

// Where a streamed body goes. write() returns false once the client has gone.
class ResponseStream {
public:
    virtual ~ResponseStream() = default;
    virtual bool write(QByteArrayView bytes) = 0;
    // True once the service is shutting down: long waits end early.
    virtual bool stopping() const = 0;
};

struct ApiResponse {
    enum class StreamEnd {
        finished, // the body ends properly
        abort,    // the connection is cut without ending the body
    };
    using Streamer = std::function<StreamEnd(ResponseStream&)>;
    // Written a few bytes at a time with pauses between (a slow server).
    struct Pacing {
        qsizetype pieceBytes = 1;
        std::chrono::milliseconds interval{100};
    };

    int status = 200;
    QByteArray contentType;
    QByteArray body;
    QList<std::pair<QByteArray, QByteArray>> headers;
    Streamer stream; // when set, the body is produced by it, chunked, instead of `body`
    std::optional<Pacing> pacing;

    static ApiResponse json(int status, const QJsonObject& object);
    static ApiResponse json(int status, const QJsonArray& array);
    static ApiResponse html(int status, const QString& page);
    static ApiResponse redirect(const QString& location, int status = 302);
    static ApiResponse eventStream(Streamer streamer);
};

} // namespace kestrolan::devservice
