#include "account/keychain_token_store.h"
#include "cli_process.h"
#include "dev_service.h"
#include "platform/settings_defaults.h"
#include "platform/system_keychain_access.h"
#include "run_task.h"
#include "secret_service.h"
#include "service/configuration.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

// `kestrolan-cli status`, and the keyring check that `login` makes before a sign-in: with a
// locked keyring, and with no Secret Service on the bus or no bus at all.
namespace {

const QString lockedKeyring = QStringLiteral(
    "The sign-in token cannot be kept: the keyring is locked. Unlock it, then sign in again.\n");
const QString noSecretService =
    QStringLiteral("The sign-in token cannot be kept: no Secret Service running. Start one "
                   "(gnome-keyring or KWallet) in this session, then sign in again.\n");

class StatusEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    CliRun cli(const QStringList& arguments) const { return runCli(service.baseURL(), arguments); }

    QJsonObject statusJson() const {
        const auto run = cli({QStringLiteral("status"), QStringLiteral("--json")});
        EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
        EXPECT_EQ(run.out.count(u'\n'), 1) << run.out.toStdString();
        return QJsonDocument::fromJson(run.out.toUtf8()).object();
    }

    std::shared_ptr<KeychainTokenStore> appTokens() const {
        return KeychainTokenStore::forApp(Configuration(service.baseURL()).origin());
    }

    // kestrolan-cli in an environment of its own: `wrapper` runs first (e.g. a D-Bus session
    // without a Secret Service) and DBUS_SESSION_BUS_ADDRESS is kept only when `keepBus`.
    CliRun isolatedCli(const QStringList& wrapper, bool keepBus,
                       const QStringList& arguments) const {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), service.baseURL());
        if (!keepBus)
            environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        QProcess process;
        process.setProcessEnvironment(environment);
        const QStringList command =
            wrapper + QStringList{QStringLiteral(KESTROLAN_CLI_PATH)} + arguments;
        process.start(command.first(), command.mid(1));
        process.closeWriteChannel();
        if (!process.waitForFinished(60'000))
            qFatal("kestrolan-cli did not finish");
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    DevService service;
};

TEST_F(StatusEndToEnd, ReportsServiceAccountModelAndKeyring) {
    const QString address = u"Service: " + service.baseURL() + u'\n';
    const auto signedOut = cli({QStringLiteral("status")});
    EXPECT_EQ(signedOut.exitCode, 0) << signedOut.err.toStdString();
    EXPECT_EQ(signedOut.out, address + u"Account: not signed in\nModel: kestrolan/echo\n"
                                       u"Keyring: available\n");
    auto json = statusJson();
    EXPECT_EQ(json.value(u"service_url").toString(), service.baseURL());
    EXPECT_TRUE(json.value(u"service_reachable").toBool());
    EXPECT_FALSE(json.value(u"signed_in").toBool(true));
    EXPECT_TRUE(json.value(u"email").isNull());
    EXPECT_EQ(json.value(u"selected_model").toString(), u"kestrolan/echo");
    EXPECT_EQ(json.value(u"keyring").toString(), u"available");

    ASSERT_EQ(signInWithCli(service.baseURL()).exitCode, 0);
    const auto token = runTask(appTokens()->read());
    const auto signedIn = cli({QStringLiteral("status")});
    EXPECT_EQ(signedIn.out, address + u"Account: dev@localhost\nModel: kestrolan/echo\n"
                                      u"Keyring: available\n");
    json = statusJson();
    EXPECT_TRUE(json.value(u"signed_in").toBool());
    EXPECT_EQ(json.value(u"email").toString(), u"dev@localhost");
    // The keyring check leaves nothing behind and never touches the token.
    SystemKeychainAccess keychain;
    EXPECT_EQ(runTask(keychain.read(QString(KeychainTokenStore::appService),
                                    QStringLiteral("kestrolan-cli|write-check"))),
              std::nullopt);
    EXPECT_EQ(runTask(appTokens()->read()), token);

    // With the service gone: what is known is still shown, and the command succeeds.
    SettingsDefaults().setValue(QStringLiteral("lastUsedModel"),
                                QStringLiteral("kestrolan/scripted"));
    service.stop();
    const auto unreachable = cli({QStringLiteral("status")});
    EXPECT_EQ(unreachable.exitCode, 0) << unreachable.err.toStdString();
    const QStringList lines = unreachable.out.split(u'\n');
    ASSERT_EQ(lines.size(), 5) << unreachable.out.toStdString();
    EXPECT_TRUE(lines[0].startsWith(u"Service: " + service.baseURL() + u" (not reachable: "))
        << lines[0].toStdString();
    EXPECT_TRUE(lines[1].startsWith(u"Account: signed in (the account could not be loaded: "))
        << lines[1].toStdString();
    EXPECT_EQ(lines[2], u"Model: kestrolan/scripted");
    EXPECT_EQ(lines[3], u"Keyring: available");
    json = statusJson();
    EXPECT_FALSE(json.value(u"service_reachable").toBool(true));
    EXPECT_FALSE(json.value(u"service_error").toString().isEmpty());
    EXPECT_TRUE(json.value(u"signed_in").toBool());
    EXPECT_TRUE(json.value(u"email").isNull());
    EXPECT_EQ(runTask(appTokens()->read()), token);
}

TEST_F(StatusEndToEnd, LoginStopsBeforeSigningInWhenTheKeyringIsLocked) {
    SecretService::lock();
    ASSERT_TRUE(SecretService::isLocked());
    const auto login = cli({QStringLiteral("login"), QStringLiteral("--no-browser")});
    EXPECT_EQ(login.exitCode, 1);
    EXPECT_EQ(login.out, u""); // no sign-in address: no code is issued
    EXPECT_EQ(login.err, lockedKeyring);
    EXPECT_TRUE(cli({QStringLiteral("status")}).out.endsWith(u"\nKeyring: locked\n"));
    EXPECT_EQ(statusJson().value(u"keyring").toString(), u"locked");

    SecretService::unlock();
    const auto unlocked = signInWithCli(service.baseURL());
    EXPECT_EQ(unlocked.exitCode, 0) << unlocked.err.toStdString();
}

TEST_F(StatusEndToEnd, LoginStopsBeforeSigningInWithoutASecretService) {
    // A session bus of its own that offers no services at all (nothing to activate either),
    // and no session bus.
    QTemporaryDir scratch;
    const QString config = scratch.filePath(QStringLiteral("session.conf"));
    QFile file(config);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)");
    file.close();
    const QStringList bareBus{QStringLiteral("dbus-run-session"), u"--config-file=" + config,
                              QStringLiteral("--")};

    for (const auto& [wrapper, keepBus] :
         {std::pair{bareBus, true}, std::pair{QStringList{}, false}}) {
        const auto login = isolatedCli(wrapper, keepBus,
                                       {QStringLiteral("login"), QStringLiteral("--no-browser")});
        EXPECT_EQ(login.exitCode, 1) << keepBus;
        EXPECT_EQ(login.out, u"") << keepBus;
        // (A bus of our own may log its own complaints first.)
        EXPECT_TRUE(login.err.endsWith(noSecretService)) << login.err.toStdString();

        const auto status = isolatedCli(wrapper, keepBus, {QStringLiteral("status")});
        EXPECT_EQ(status.exitCode, 0) << keepBus;
        EXPECT_TRUE(status.out.endsWith(u"\nKeyring: no Secret Service running\n"))
            << status.out.toStdString();
        EXPECT_TRUE(status.out.contains(u"\nAccount: unknown (")) << status.out.toStdString();
    }
}

} // namespace
