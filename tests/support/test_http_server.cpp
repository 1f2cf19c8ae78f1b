#include "test_http_server.h"

#include <QtGlobal>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrolan::test {

namespace {

QByteArray reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 307:
        return "Temporary Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not Found";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    default:
        return "Status";
    }
}

} // namespace

TestResponse TestResponse::json(int status, QByteArray body) {
    TestResponse response;
    response.status = status;
    response.addHeader("Content-Type", "application/json");
    response.body = std::move(body);
    return response;
}

TestResponse TestResponse::eventStream(QByteArray body) {
    TestResponse response;
    response.addHeader("Content-Type", "text/event-stream");
    response.body = std::move(body);
    response.framing = Framing::chunked;
    return response;
}

TestHttpServer::TestHttpServer(Handler handler)
    : m_handler(std::move(handler)) {
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0)
        qFatal("test server: socket failed");
    const int one = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listenFd, 64) != 0)
        qFatal("test server: bind/listen failed");
    socklen_t length = sizeof address;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread([this] { acceptLoop(); });
}

TestHttpServer::~TestHttpServer() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        for (const int fd : m_connections)
            ::shutdown(fd, SHUT_RDWR);
    }
    m_stopped.notify_all();
    m_acceptThread.join();
    for (auto& thread : m_threads)
        thread.join();
    ::close(m_listenFd);
}

QString TestHttpServer::baseURL() const {
    return QStringLiteral("http://127.0.0.1:") + QString::number(m_port);
}

void TestHttpServer::setHandler(Handler handler) {
    std::lock_guard lock(m_mutex);
    m_handler = std::move(handler);
}

void TestHttpServer::enqueue(TestResponse response) {
    std::lock_guard lock(m_mutex);
    m_queue.push_back(std::move(response));
}

QList<RecordedRequest> TestHttpServer::requests() const {
    std::lock_guard lock(m_mutex);
    return m_requests;
}

qsizetype TestHttpServer::requestCount() const {
    std::lock_guard lock(m_mutex);
    return m_requests.size();
}

qsizetype TestHttpServer::connectionCount() const {
    std::lock_guard lock(m_mutex);
    return m_connectionCount;
}

void TestHttpServer::acceptLoop() {
    while (!m_stopping) {
        pollfd descriptor{m_listenFd, POLLIN, 0};
        if (::poll(&descriptor, 1, 20) <= 0)
            continue;
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        std::lock_guard lock(m_mutex);
        ++m_connectionCount;
        m_connections.insert(fd);
        m_threads.emplace_back([this, fd] { serve(fd); });
    }
}

TestResponse TestHttpServer::respond(const RecordedRequest& request) {
    std::unique_lock lock(m_mutex);
    m_requests.append(request);
    if (!m_queue.empty()) {
        auto response = std::move(m_queue.front());
        m_queue.pop_front();
        return response;
    }
    auto handler = m_handler;
    lock.unlock();
    if (handler)
        return handler(request);
    return TestResponse::json(404, R"({"error":{"message":"Not found."}})");
}

bool TestHttpServer::write(int fd, const char* data, qsizetype size) {
    while (size > 0) {
        const auto written = ::send(fd, data, size_t(size), MSG_NOSIGNAL);
        if (written <= 0)
            return false;
        data += written;
        size -= written;
    }
    return true;
}

bool TestHttpServer::pause(std::chrono::milliseconds delay) {
    if (delay.count() <= 0)
        return !m_stopping;
    std::unique_lock lock(m_mutex);
    return !m_stopped.wait_for(lock, delay, [this] { return m_stopping.load(); });
}

void TestHttpServer::serve(int fd) {
    QByteArray buffer;
    char chunk[16384];
    qsizetype headerEnd = -1;
    while (headerEnd < 0) {
        const auto received = ::recv(fd, chunk, sizeof chunk, 0);
        if (received <= 0)
            break;
        buffer.append(chunk, received);
        headerEnd = buffer.indexOf("\r\n\r\n");
    }

    if (headerEnd >= 0) {
        RecordedRequest request;
        const auto lines = buffer.left(headerEnd).split('\n');
        const auto requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const auto colon = lines[i].indexOf(':');
            if (colon > 0)
                request.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                       lines[i].mid(colon + 1).trimmed());
        }
        request.body = buffer.mid(headerEnd + 4);
        const auto length = request.header("content-length").toLongLong();
        while (request.body.size() < length) {
            const auto received = ::recv(fd, chunk, sizeof chunk, 0);
            if (received <= 0)
                break;
            request.body.append(chunk, received);
        }

        auto response = respond(request);
        if (response.beforeSending)
            response.beforeSending();

        if (response.raw) {
            write(fd, response.raw->constData(), response.raw->size());
        } else {
            using Framing = TestResponse::Framing;
            QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' +
                              reasonPhrase(response.status) + "\r\nConnection: close\r\n";
            for (const auto& [name, value] : response.headers)
                head += name + ": " + value + "\r\n";
            if (response.framing == Framing::contentLength)
                head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
            else if (response.framing == Framing::chunked)
                head += "Transfer-Encoding: chunked\r\n";
            head += "\r\n";

            const auto limit = response.dropAfter.value_or(response.body.size());
            const auto piece = response.pieceSize > 0 ? response.pieceSize : response.body.size();
            bool open = write(fd, head.constData(), head.size());
            for (qsizetype offset = 0; open && offset < limit; offset += piece) {
                const auto part = response.body.mid(offset, std::min(piece, limit - offset));
                if (response.framing == Framing::chunked) {
                    const QByteArray size = QByteArray::number(part.size(), 16) + "\r\n";
                    open = write(fd, size.constData(), size.size());
                    open = open && write(fd, part.constData(), part.size()) && write(fd, "\r\n", 2);
                } else {
                    open = write(fd, part.constData(), part.size());
                }
                if (open && offset + piece < limit)
                    open = pause(response.pieceDelay);
            }
            if (open && !response.dropAfter && response.framing == Framing::chunked)
                write(fd, "0\r\n\r\n", 5);
        }
    }

    std::lock_guard lock(m_mutex);
    m_connections.erase(fd);
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
}

} // namespace kestrolan::test
