#include "dev_service.h"

#include "run_task.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QUrlQuery>
#include <memory>

namespace kestrolan::test {

namespace {

struct Answer {
    int status = 0;
    QByteArray location;
    QByteArray body;
};

Answer send(const QByteArray& method, const QUrl& url, const QByteArray& body = {}) {
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    if (!body.isEmpty())
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    std::unique_ptr<QNetworkReply> reply(manager.sendCustomRequest(request, method, body));
    runUntil([&] { return reply->isFinished(); });
    return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
            reply->rawHeader("Location"), reply->readAll()};
}

QString base64url(const QByteArray& bytes) {
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

DevService::DevService(std::optional<QByteArray> catalog, QStringList extraArguments) {
    QStringList arguments{QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                          QStringLiteral("--data"), m_data.filePath(QStringLiteral("data")),
                          QStringLiteral("--auto-approve")};
    if (catalog) {
        QFile file(m_data.filePath(QStringLiteral("catalog.json")));
        if (!file.open(QIODevice::WriteOnly) || file.write(*catalog) != catalog->size())
            qFatal("cannot write the catalog file");
        arguments << QStringLiteral("--catalog") << file.fileName();
    }
    m_process.setProgram(QStringLiteral(KESTROLAN_DEVSERVICE_PATH));
    m_process.setArguments(arguments + extraArguments);
    m_process.start();
    const QByteArray prefix = "kestrolan-devservice listening on ";
    while (m_baseURL.isEmpty()) {
        if (!m_process.canReadLine() && !m_process.waitForReadyRead(10'000))
            qFatal("devservice did not start: %s", m_process.readAllStandardError().constData());
        const QByteArray line = m_process.readLine().trimmed();
        if (line.startsWith(prefix))
            m_baseURL = QString::fromUtf8(line.mid(prefix.size()));
    }
}

DevService::~DevService() {
    stop();
}

void DevService::stop() {
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10'000))
        m_process.kill();
    m_process.waitForFinished();
}

QString DevService::signIn() const {
    const auto verifier = base64url(QByteArray(32, '\x5a'));
    const auto challenge =
        base64url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));
    QUrl authorize(m_baseURL + u"/desktop/authorize");
    authorize.setQuery(
        QUrlQuery{{QStringLiteral("state"), QStringLiteral("s1")},
                  {QStringLiteral("code_challenge"), challenge},
                  {QStringLiteral("code_challenge_method"), QStringLiteral("S256")}});
    const QUrlQuery callback(openInBrowser(authorize));
    const auto exchange =
        send("POST", QUrl(m_baseURL + u"/api/desktop/token"),
             QJsonDocument(QJsonObject{{QStringLiteral("code"),
                                        callback.queryItemValue(QStringLiteral("code"))},
                                       {QStringLiteral("code_verifier"), verifier},
                                       {QStringLiteral("device_name"), QStringLiteral("test")}})
                 .toJson(QJsonDocument::Compact));
    const auto token = QJsonDocument::fromJson(exchange.body).object().value(u"token").toString();
    if (token.isEmpty())
        qFatal("code exchange failed: %s", exchange.body.constData());
    return token;
}

QUrl DevService::openInBrowser(const QUrl& authorize) {
    const auto redirect = send("GET", authorize);
    if (redirect.status != 302)
        qFatal("authorize answered %d", redirect.status);
    return QUrl(QString::fromUtf8(redirect.location));
}

QString DevService::logUntil(const QString& until) {
    const QDeadlineTimer deadline(10'000);
    while (!m_log.contains(until) && !deadline.hasExpired()) {
        m_process.waitForReadyRead(100);
        m_log += QString::fromUtf8(m_process.readAllStandardError());
    }
    return m_log;
}

QByteArray DevService::admin(const QByteArray& method, const QString& path,
                             const QByteArray& body) const {
    const auto answer = send(method, QUrl(m_baseURL + path), body);
    if (answer.status < 200 || answer.status > 299)
        qFatal("admin call %s answered %d", qPrintable(path), answer.status);
    return answer.body;
}

} // namespace kestrolan::test
