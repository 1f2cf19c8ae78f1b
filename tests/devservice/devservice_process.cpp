#include "devservice_process.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QThread>
#include <QUrl>
#include <QUrlQuery>
#include <csignal>
#include <httplib.h>
#include <stdexcept>
#include <sys/prctl.h>

namespace kestrolan::test {

namespace {

QProcessEnvironment environmentWith(const QMap<QString, QString>& extra) {
    auto environment = QProcessEnvironment::systemEnvironment();
    for (auto it = extra.begin(); it != extra.end(); ++it)
        environment.insert(it.key(), it.value());
    return environment;
}

} // namespace

QByteArray HttpReply::header(const QByteArray& name) const {
    for (const auto& [key, value] : headers)
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    return {};
}

QJsonObject HttpReply::json() const {
    return QJsonDocument::fromJson(body).object();
}

QJsonArray HttpReply::array() const {
    return QJsonDocument::fromJson(body).array();
}

QJsonObject HttpReply::error() const {
    return json().value(QStringLiteral("error")).toObject();
}

DevServiceProcess::DevServiceProcess()
    : DevServiceProcess(Launch{}) {}

DevServiceProcess::DevServiceProcess(Launch launch) {
    m_dataDirectory = launch.dataDirectory;
    if (m_dataDirectory.isEmpty()) {
        m_temporary = std::make_unique<QTemporaryDir>();
        m_dataDirectory = m_temporary->path();
    }
    QStringList arguments{QStringLiteral("--listen"), launch.listen, QStringLiteral("--data"),
                          m_dataDirectory};
    if (launch.autoApprove)
        arguments.append(QStringLiteral("--auto-approve"));
    arguments += launch.arguments;
    m_process.setProcessEnvironment(environmentWith(launch.environment));
    // A test process that crashes must not leave its service running.
    m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    m_process.start(QStringLiteral(KESTROLAN_DEVSERVICE_BINARY), arguments);
    if (!m_process.waitForStarted(10'000))
        throw std::runtime_error("kestrolan-devservice did not start");

    QByteArray output;
    const QDeadlineTimer deadline(15'000);
    while (!deadline.hasExpired()) {
        if (!m_process.waitForReadyRead(int(deadline.remainingTime())))
            break;
        output += m_process.readAllStandardOutput();
        const auto line = output.indexOf("listening on http://");
        const auto end = output.indexOf('\n', line);
        if (line >= 0 && end > line) {
            const auto url = QUrl(QString::fromUtf8(output.sliced(line + 13, end - line - 13)));
            m_port = quint16(url.port());
            return;
        }
    }
    m_standardError += m_process.readAllStandardError();
    throw std::runtime_error("kestrolan-devservice did not report its address: " +
                             m_standardError.toStdString());
}

DevServiceProcess::~DevServiceProcess() {
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5'000);
    }
}

std::unique_ptr<httplib::Client> DevServiceProcess::client() const {
    auto client = std::make_unique<httplib::Client>("127.0.0.1", m_port);
    client->set_connection_timeout(5);
    client->set_read_timeout(20);
    client->set_write_timeout(20);
    client->set_keep_alive(false);
    client->set_follow_location(false);
    client->set_decompress(true);
    return client;
}

HttpReply DevServiceProcess::send(const char* method, const QString& path, const QByteArray& body,
                                  const QString& token) const {
    httplib::Request request;
    request.method = method;
    request.path = path.toStdString();
    if (!token.isEmpty())
        request.set_header("Authorization", "Bearer " + token.toStdString());
    if (!body.isNull()) {
        request.body = body.toStdString();
        request.set_header("Content-Type", "application/json");
    }
    auto client = this->client();
    const auto result = client->send(request);
    HttpReply reply;
    if (!result)
        return reply;
    reply.status = result->status;
    reply.body = QByteArray::fromStdString(result->body);
    for (const auto& [name, value] : result->headers)
        reply.headers.emplaceBack(QByteArray::fromStdString(name),
                                  QByteArray::fromStdString(value));
    return reply;
}

HttpReply DevServiceProcess::get(const QString& path, const QString& token) const {
    return send("GET", path, QByteArray(), token);
}

HttpReply DevServiceProcess::post(const QString& path, const QByteArray& body,
                                  const QString& token) const {
    return send("POST", path, body.isNull() ? QByteArray("") : body, token);
}

HttpReply DevServiceProcess::post(const QString& path, const QJsonObject& body,
                                  const QString& token) const {
    return post(path, QJsonDocument(body).toJson(QJsonDocument::Compact), token);
}

HttpReply DevServiceProcess::put(const QString& path, const QByteArray& body,
                                 const QString& token) const {
    return send("PUT", path, body, token);
}

HttpReply DevServiceProcess::remove(const QString& path, const QString& token) const {
    return send("DELETE", path, QByteArray(), token);
}

QByteArray DevServiceProcess::raw(const QByteArray& method, const QString& path) const {
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), m_port);
    if (!socket.waitForConnected(5'000))
        return {};
    socket.write(method + ' ' + path.toUtf8() +
                 " HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                 "Connection: close\r\n\r\n");
    QByteArray response;
    while (socket.waitForReadyRead(5'000) || socket.bytesAvailable() > 0)
        response += socket.readAll();
    return response + socket.readAll();
}

std::pair<QString, QString> DevServiceProcess::pkce() {
    QByteArray random(32, '\0');
    for (auto& byte : random)
        byte = char(QRandomGenerator::global()->bounded(256));
    const auto options = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
    const auto verifier = QString::fromLatin1(random.toBase64(options));
    const auto challenge = QString::fromLatin1(
        QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256).toBase64(options));
    return {verifier, challenge};
}

QString DevServiceProcess::authorizePath(const QString& state, const QString& challenge) {
    return QStringLiteral("/desktop/authorize?state=") +
           QString::fromLatin1(QUrl::toPercentEncoding(state)) +
           QStringLiteral("&code_challenge=") + challenge +
           QStringLiteral("&code_challenge_method=S256");
}

std::optional<QString> DevServiceProcess::callbackItem(const QByteArray& location,
                                                       const QString& name) {
    const QUrl url(QString::fromUtf8(location), QUrl::StrictMode);
    const QUrlQuery query(url);
    if (!query.hasQueryItem(name))
        return std::nullopt;
    return query.queryItemValue(name, QUrl::FullyDecoded);
}

QString DevServiceProcess::signIn() const {
    const auto [verifier, challenge] = pkce();
    const auto authorized = get(authorizePath(QStringLiteral("state"), challenge));
    if (authorized.status != 302)
        throw std::runtime_error("authorize did not redirect");
    const auto code = callbackItem(authorized.header("Location"), QStringLiteral("code"));
    const auto exchanged =
        post(QStringLiteral("/api/desktop/token"),
             QJsonObject{{QStringLiteral("code"), code.value_or(QString())},
                         {QStringLiteral("code_verifier"), verifier},
                         {QStringLiteral("device_name"), QStringLiteral("test machine")}});
    if (exchanged.status != 200)
        throw std::runtime_error("the code exchange failed: " + exchanged.body.toStdString());
    return exchanged.json().value(QStringLiteral("token")).toString();
}

QJsonObject DevServiceProcess::adminAccount() const {
    return get(QStringLiteral("/admin/account")).json();
}

QJsonObject DevServiceProcess::waitForHeld(qint64 held, std::chrono::milliseconds wait) const {
    const QDeadlineTimer deadline(wait);
    for (;;) {
        auto account = adminAccount();
        if (account.value(QStringLiteral("held_millionths")).toInteger() == held ||
            deadline.hasExpired())
            return account;
        QThread::msleep(20);
    }
}

std::optional<int> DevServiceProcess::stop(int signal, std::chrono::milliseconds wait) {
    ::kill(pid_t(m_process.processId()), signal);
    if (!m_process.waitForFinished(int(wait.count())))
        return std::nullopt;
    m_standardError += m_process.readAllStandardError();
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void DevServiceProcess::kill() {
    m_process.kill();
    m_process.waitForFinished(5'000);
    m_standardError += m_process.readAllStandardError();
}

QByteArray DevServiceProcess::standardError() {
    m_standardError += m_process.readAllStandardError();
    return m_standardError;
}

std::pair<int, QByteArray> runRefused(const QStringList& arguments) {
    QProcess process;
    process.start(QStringLiteral(KESTROLAN_DEVSERVICE_BINARY), arguments);
    if (!process.waitForFinished(10'000)) {
        process.kill();
        process.waitForFinished();
        return {-1, "still running"};
    }
    return {process.exitCode(), process.readAllStandardError()};
}

} // namespace kestrolan::test
