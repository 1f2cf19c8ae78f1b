#include "platform/instance_socket.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrolan {
namespace {

constexpr qsizetype maxMessageBytes = 64 * 1024;
const QByteArray openPrefix = QByteArrayLiteral("open ");
const QByteArray activateLine = QByteArrayLiteral("activate");
const QByteArray okLine = QByteArrayLiteral("ok\n");

// Milliseconds left until `deadline`, at least 0.
int remaining(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<qint64>(0, left.count()));
}

} // namespace

QString InstanceSocket::defaultPath() {
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) +
           QStringLiteral("/kestrolan.sock");
}

QByteArray InstanceSocket::openMessage(const QUrl& url) {
    return openPrefix + url.toEncoded(QUrl::FullyEncoded) + '\n';
}

QByteArray InstanceSocket::activateMessage() {
    return activateLine + '\n';
}

bool InstanceSocket::send(const QString& path, const QByteArray& message,
                          std::chrono::milliseconds timeout) {
    const QByteArray native = path.toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (native.size() >= static_cast<qsizetype>(sizeof(address.sun_path)))
        return false;
    std::memcpy(address.sun_path, native.constData(), static_cast<size_t>(native.size()));

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool delivered = false;
    // A refused or missing socket fails at once: nobody listens.
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        qsizetype sent = 0;
        while (sent < message.size()) {
            const ssize_t n = ::send(fd, message.constData() + sent,
                                     static_cast<size_t>(message.size() - sent), MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            sent += n;
        }
        QByteArray answer;
        while (sent == message.size() && !answer.contains('\n')) {
            pollfd entry{fd, POLLIN, 0};
            const int ready = ::poll(&entry, 1, remaining(deadline));
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                break;
            char buffer[16];
            const ssize_t n = ::read(fd, buffer, sizeof(buffer));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            answer.append(buffer, n);
        }
        delivered = answer == okLine;
    }
    ::close(fd);
    return delivered;
}

InstanceSocket::InstanceSocket(QString path, QObject* parent)
    : QObject(parent)
    , m_path(std::move(path))
    , m_server(new QLocalServer(this)) {
    connect(m_server, &QLocalServer::newConnection, this, &InstanceSocket::accept);
}

InstanceSocket::~InstanceSocket() = default;

bool InstanceSocket::listen() {
    // No UserAccessOption: with it, listen() replaces the socket of a live instance. The
    // runtime directory is the user's own (mode 0700) already.
    if (m_server->listen(m_path))
        return true;
    if (m_server->serverError() != QAbstractSocket::AddressInUseError)
        return false;
    // Someone answers: a live instance. Refused at once: a crashed one left its file behind.
    QLocalSocket probe;
    probe.connectToServer(m_path);
    if (probe.waitForConnected(1000))
        return false;
    QLocalServer::removeServer(m_path);
    return m_server->listen(m_path);
}

void InstanceSocket::accept() {
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > maxMessageBytes)
                    socket->abort();
                return;
            }
            const QByteArray line = socket->readLine(maxMessageBytes).trimmed();
            socket->write(okLine);
            socket->flush();
            socket->disconnectFromServer();
            if (line == activateLine) {
                Q_EMIT activationRequested();
            } else if (line.startsWith(openPrefix)) {
                const QUrl url = QUrl::fromEncoded(line.mid(openPrefix.size()), QUrl::StrictMode);
                if (url.isValid())
                    Q_EMIT urlReceived(url);
            }
        });
    }
}

} // namespace kestrolan
