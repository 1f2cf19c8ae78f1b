#include "cli_process.h"

#include "dev_service.h"

#include <QProcess>
#include <QUrl>
#include <gtest/gtest.h>

namespace kestrolan::test {

namespace {

void start(QProcess& process, const QString& baseURL, const QStringList& arguments,
           const QProcessEnvironment& extra) {
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), baseURL);
    environment.insert(extra);
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(KESTROLAN_CLI_PATH), arguments);
}

CliRun finish(QProcess& process) {
    process.closeWriteChannel();
    if (!process.waitForFinished(60'000))
        qFatal("kestrolan-cli did not finish");
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

} // namespace

CliRun runCli(const QString& baseURL, const QStringList& arguments, const QByteArray& input,
              const QProcessEnvironment& extra) {
    QProcess process;
    start(process, baseURL, arguments, extra);
    process.write(input);
    return finish(process);
}

CliRun signInWithCli(const QString& baseURL, const QStringList& extra) {
    QProcess process;
    start(process, baseURL,
          QStringList{QStringLiteral("login"), QStringLiteral("--no-browser")} + extra, {});
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(30'000))
            qFatal("kestrolan-cli printed no sign-in address");
    }
    const QUrl authorize(QString::fromUtf8(process.readLine().trimmed()));
    EXPECT_EQ(authorize.toString(QUrl::RemoveQuery), baseURL + u"/desktop/authorize");
    const QUrl callback = DevService::openInBrowser(authorize);
    EXPECT_EQ(callback.toString(QUrl::RemoveQuery), u"kestrolan://auth/callback");
    process.write(callback.toEncoded() + '\n');
    return finish(process);
}

} // namespace kestrolan::test
