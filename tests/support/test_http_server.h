#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

namespace kestrolan::test {

struct RecordedRequest {
    QByteArray method;
    QByteArray target;
    QMap<QByteArray, QByteArray> headers; // names lower-cased
    QByteArray body;

    QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
};

// What the server answers. By default a Content-Length response; the other knobs produce the
// awkward shapes a client must survive: chunked bodies, slow pieces, connections dropped
// mid-body and exact raw bytes.
struct TestResponse {
    enum class Framing { contentLength, chunked, untilClose };

    int status = 200;
    QList<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;
    Framing framing = Framing::contentLength;
    qsizetype pieceSize = 0; // 0 writes the body at once; otherwise in pieces (chunks if chunked)
    std::chrono::milliseconds pieceDelay{0};
    std::optional<qsizetype> dropAfter;  // close after this many body bytes, body unfinished
    std::optional<QByteArray> raw;       // written exactly as is, then the connection closes
    std::function<void()> beforeSending; // runs on the server thread; may block (a latch)

    void addHeader(QByteArray name, QByteArray value) {
        headers.append(std::pair(std::move(name), std::move(value)));
    }

    static TestResponse json(int status, QByteArray body);
    static TestResponse eventStream(QByteArray body);
};

// An HTTP/1.1 server on 127.0.0.1 with its own threads, so the code under test can use the
// main thread's event loop freely. Each connection serves one request and closes.
class TestHttpServer {
public:
    using Handler = std::function<TestResponse(const RecordedRequest&)>;

    explicit TestHttpServer(Handler handler = {});
    ~TestHttpServer();
    TestHttpServer(const TestHttpServer&) = delete;
    TestHttpServer& operator=(const TestHttpServer&) = delete;

    quint16 port() const { return m_port; }
    QString baseURL() const;

    void setHandler(Handler handler);
    // Queued responses are served first, in order; then the handler; then 404.
    void enqueue(TestResponse response);

    QList<RecordedRequest> requests() const;
    qsizetype requestCount() const;
    // Connections accepted, also those that never sent a whole request.
    qsizetype connectionCount() const;

private:
    void acceptLoop();
    void serve(int fd);
    TestResponse respond(const RecordedRequest& request);
    bool write(int fd, const char* data, qsizetype size);
    bool pause(std::chrono::milliseconds delay);

    int m_listenFd = -1;
    quint16 m_port = 0;
    std::atomic<bool> m_stopping{false};
    mutable std::mutex m_mutex;
    std::condition_variable m_stopped;
    Handler m_handler;
    std::deque<TestResponse> m_queue;
    QList<RecordedRequest> m_requests;
    qsizetype m_connectionCount = 0;
    std::set<int> m_connections;
    std::vector<std::thread> m_threads;
    std::thread m_acceptThread;
};

} // namespace kestrolan::test
