#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>
#include <optional>

namespace kestrolan::test {

// The development service as a real process on a free loopback port, with its own data.
class DevService {
public:
    // `catalog`: a catalog file's content to serve instead of the built-in catalog.
    explicit DevService(std::optional<QByteArray> catalog = {}, QStringList extraArguments = {});
    ~DevService();
    DevService(const DevService&) = delete;
    DevService& operator=(const DevService&) = delete;

    void stop();
    const QString& baseURL() const { return m_baseURL; }
    // Where the service keeps its database (devservice.sqlite3).
    QString dataDirectory() const { return m_data.filePath(QStringLiteral("data")); }

    // The service's log (it logs each request it answers), read until a line containing
    // `until` has arrived or ten seconds have passed.
    QString logUntil(const QString& until);

    // What a browser does with the authorize address: GET it and receive the redirect to the
    // app's callback, whose address is returned.
    static QUrl openInBrowser(const QUrl& authorize);

    // Signs in the way the browser and the app do it together (authorize with a PKCE challenge,
    // the redirect to the callback, the code exchange) and returns the bearer token.
    QString signIn() const;

    // A loopback-only administration call, e.g. post("/admin/fault", {...}).
    QByteArray admin(const QByteArray& method, const QString& path,
                     const QByteArray& body = {}) const;

private:
    QTemporaryDir m_data;
    QProcess m_process;
    QString m_baseURL;
    QString m_log;
};

} // namespace kestrolan::test
