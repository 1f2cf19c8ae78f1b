#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace httplib {
class Client;
}

namespace kestrolan::test {

struct HttpReply {
    int status = 0; // 0: no response (transport failure)
    QByteArray body;
    QList<std::pair<QByteArray, QByteArray>> headers;

    QByteArray header(const QByteArray& name) const;
    QJsonObject json() const;
    QJsonArray array() const;
    // The envelope's inner error object; empty when the body is not the envelope.
    QJsonObject error() const;
};

// The real kestrolan-devservice binary on a free loopback port with its own data directory,
// driven over HTTP.
class DevServiceProcess {
public:
    struct Launch {
        QStringList arguments; // added after --listen and --data
        QMap<QString, QString> environment;
        QString dataDirectory; // empty: a fresh temporary one
        bool autoApprove = true;
        QString listen = QStringLiteral("127.0.0.1:0");
    };

    explicit DevServiceProcess(Launch launch);
    DevServiceProcess();
    ~DevServiceProcess();

    quint16 port() const { return m_port; }
    QString dataDirectory() const { return m_dataDirectory; }
    qint64 pid() const { return m_process.processId(); }

    std::unique_ptr<httplib::Client> client() const;

    HttpReply get(const QString& path, const QString& token = {}) const;
    HttpReply post(const QString& path, const QByteArray& body, const QString& token = {}) const;
    HttpReply post(const QString& path, const QJsonObject& body, const QString& token = {}) const;
    HttpReply put(const QString& path, const QByteArray& body, const QString& token = {}) const;
    HttpReply remove(const QString& path, const QString& token = {}) const;

    // The bytes of a response exactly as they came off the socket (the HTTP client decodes
    // some headers, Location among them).
    QByteArray raw(const QByteArray& method, const QString& path) const;

    // Signs the development account in through the authorize page and the code exchange.
    QString signIn() const;
    // The administration view of the development account (amounts in millionths).
    QJsonObject adminAccount() const;
    // Polls the administration view until `held_millionths` is `held` or the wait ends.
    QJsonObject waitForHeld(qint64 held, std::chrono::milliseconds wait) const;

    // Sends `signal` and waits for the exit; returns the exit code, or empty on a time-out.
    std::optional<int> stop(int signal, std::chrono::milliseconds wait);
    void kill();
    QByteArray standardError();

    // A PKCE pair (verifier, S256 challenge).
    static std::pair<QString, QString> pkce();
    // The authorize URL's path and query for a challenge.
    static QString authorizePath(const QString& state, const QString& challenge);
    // The value of `name` in a callback URL's query, decoded.
    static std::optional<QString> callbackItem(const QByteArray& location, const QString& name);

private:
    HttpReply send(const char* method, const QString& path, const QByteArray& body,
                   const QString& token) const;

    std::unique_ptr<QTemporaryDir> m_temporary;
    QString m_dataDirectory;
    QProcess m_process;
    quint16 m_port = 0;
    QByteArray m_standardError;
};

// Starts the binary expecting it to refuse; returns its exit code and error output.
std::pair<int, QByteArray> runRefused(const QStringList& arguments);

} // namespace kestrolan::test
