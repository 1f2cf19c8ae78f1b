#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>
#include <chrono>

class QLocalServer;

namespace kestrolan {

// The one running desktop app listens on a local socket in $XDG_RUNTIME_DIR. A later `kestrolan`
// hands its URL (the sign-in callback) or a request to show the window to it and exits. Each
// message is one line; the listener answers "ok" once it has taken it, so the sender knows
// nothing was lost when it exits.
class InstanceSocket : public QObject {
    Q_OBJECT

public:
    static QString defaultPath();
    // One line: "open URL" or "activate".
    static QByteArray openMessage(const QUrl& url);
    static QByteArray activateMessage();

    // Blocking and with no Qt application needed: the second process calls it before building
    // one. True when a listener at `path` took the message.
    static bool send(const QString& path, const QByteArray& message,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5));

    explicit InstanceSocket(QString path, QObject* parent = nullptr);
    ~InstanceSocket() override;

    // Starts listening. False when another live instance holds the path; a socket file left by a
    // crashed instance is removed and taken over.
    bool listen();
    const QString& path() const { return m_path; }

Q_SIGNALS:
    void urlReceived(QUrl url);
    void activationRequested();

private:
    void accept();

    QString m_path;
    QLocalServer* m_server;
};

} // namespace kestrolan
