#include "account/keychain_token_store.h"
#include "cli_process.h"
#include "dev_service.h"
#include "error.h"
#include "platform/settings_defaults.h"
#include "run_task.h"
#include "secret_service.h"
#include "service/api_client.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrlQuery>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

// Catalog order: an unavailable model first, so that the selection must skip it.
const QByteArray catalogFile = R"({"models":[
  {"id":"test/old","display_name":"Old","available":false,"description":"Gone.",
   "context_tokens":8000,"max_output_tokens":1000,"default_output_tokens":500,
   "pricing":{"input_usd_per_mtok":"3","output_usd_per_mtok":"15"}},
  {"id":"kestrolan/echo","display_name":"Small","available":true,"description":"Cheap.",
   "context_tokens":131072,"max_output_tokens":4096,"default_output_tokens":1024,
   "pricing":{"input_usd_per_mtok":"0.000125","output_usd_per_mtok":"12.3456"}},
  {"id":"kestrolan/scripted","display_name":"Large one","available":true,"description":"Big.",
   "context_tokens":1500000,"max_output_tokens":8192,"default_output_tokens":2048}
]})";

class SignInEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    CliRun cli(const QStringList& arguments, const QByteArray& input = {},
               const std::optional<QString>& baseURL = {}) const {
        return runCli(baseURL.value_or(service.baseURL()), arguments, input);
    }

    CliRun signIn() const { return signInWithCli(service.baseURL()); }

    // The token store the desktop app makes for this service.
    std::shared_ptr<KeychainTokenStore> appTokens() const {
        return KeychainTokenStore::forApp(Configuration(service.baseURL()).origin());
    }

    DevService service{catalogFile};
};

} // namespace

TEST_F(SignInEndToEnd, SignsInThenShowsAccountAndModelsThenSignsOut) {
    const auto before = cli({QStringLiteral("account")});
    EXPECT_EQ(before.exitCode, 1);
    EXPECT_EQ(before.err.trimmed(), u"Sign in to continue.");
    EXPECT_EQ(before.out, u"");

    const auto login = signIn();
    EXPECT_EQ(login.exitCode, 0) << login.err.toStdString();
    EXPECT_EQ(login.out.trimmed(), u"Signed in as dev@localhost");

    // The desktop app finds the same token and can use it.
    const auto tokens = appTokens();
    const auto token = runTask(tokens->read());
    ASSERT_TRUE(token && !token->isEmpty());
    APIClient app(Configuration(service.baseURL()), tokens);
    EXPECT_EQ(runTask(app.account()).email, u"dev@localhost");

    const auto account = cli({QStringLiteral("account")});
    EXPECT_EQ(account.exitCode, 0) << account.err.toStdString();
    EXPECT_EQ(account.out, u"Email: dev@localhost\nBalance: $25.00\nHeld: $0.00\n"
                           u"Available: $25.00\nZero Data Retention: off\n");
    const auto accountJson = cli({QStringLiteral("account"), QStringLiteral("--json")});
    const auto accountObject = QJsonDocument::fromJson(accountJson.out.toUtf8()).object();
    EXPECT_EQ(accountObject.value(u"email").toString(), u"dev@localhost");
    EXPECT_EQ(accountObject.value(u"available_usd").toString(), u"25.00");

    const auto models = cli({QStringLiteral("models")});
    EXPECT_EQ(models.exitCode, 0) << models.err.toStdString();
    EXPECT_EQ(models.out,
              u"  test/old            Old        unavailable  $3.00 in · $15.00 out per 1M "
              u"tokens · 8K context\n"
              u"* kestrolan/echo      Small      $0.000125 in · $12.34 out per 1M tokens · 131K "
              u"context\n"
              u"  kestrolan/scripted  Large one  Not provided in · Not provided out per 1M "
              u"tokens · 1.5M context\n");
    // The model last chosen in the app is the one marked.
    SettingsDefaults().setValue(QStringLiteral("lastUsedModel"),
                                QStringLiteral("kestrolan/scripted"));
    EXPECT_TRUE(cli({QStringLiteral("models")}).out.contains(u"\n* kestrolan/scripted"));
    const auto modelsJson = cli({QStringLiteral("models"), QStringLiteral("--json")});
    const auto catalog = QJsonDocument::fromJson(modelsJson.out.toUtf8()).object();
    EXPECT_EQ(catalog.value(u"models").toArray().size(), 3);
    EXPECT_EQ(catalog.value(u"models")
                  .toArray()
                  .at(1)
                  .toObject()
                  .value(u"pricing")
                  .toObject()
                  .value(u"output_usd_per_mtok")
                  .toString(),
              u"12.3456");

    const auto logout = cli({QStringLiteral("logout")});
    EXPECT_EQ(logout.exitCode, 0) << logout.err.toStdString();
    EXPECT_EQ(logout.out.trimmed(), u"Signed out.");
    EXPECT_EQ(runTask(appTokens()->read()), std::nullopt);
    // The service revoked the token too: the app's copy no longer works.
    EXPECT_THROW(runTask(app.account()), kestrolan::Error);
    const auto after = cli({QStringLiteral("account")});
    EXPECT_EQ(after.exitCode, 1);
    EXPECT_EQ(after.err.trimmed(), u"Sign in to continue.");
}

TEST_F(SignInEndToEnd, LogoutWithTheServiceGoneStillSignsOutLocally) {
    ASSERT_EQ(signIn().exitCode, 0);
    ASSERT_TRUE(runTask(appTokens()->read()));
    service.stop();

    const auto logout = cli({QStringLiteral("logout")});
    EXPECT_EQ(logout.exitCode, 1);
    EXPECT_FALSE(logout.err.trimmed().isEmpty());
    EXPECT_EQ(logout.out, u"");
    EXPECT_EQ(runTask(appTokens()->read()), std::nullopt);
}

TEST_F(SignInEndToEnd, RefusesBadUsageBadAddressesAndBadCallbacks) {
    const auto unknown = cli({QStringLiteral("login"), QStringLiteral("--bogus")});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains(u"kestrolan-cli login --help")) << unknown.err.toStdString();
    EXPECT_EQ(cli({QStringLiteral("account"), QStringLiteral("extra")}).exitCode, 2);
    for (const auto* command : {"login", "logout", "account", "models"}) {
        const auto help = cli({QString::fromLatin1(command), QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_TRUE(help.out.startsWith(u"Usage: kestrolan-cli " + QString::fromLatin1(command)));
    }

    const auto badAddress =
        cli({QStringLiteral("models")}, {}, QStringLiteral("ftp://example.com"));
    EXPECT_EQ(badAddress.exitCode, 1);
    EXPECT_EQ(badAddress.err.trimmed(), u"The Kestrolan server address is invalid.");

    // No callback at all, and a callback of another attempt.
    const auto noCallback = cli({QStringLiteral("login"), QStringLiteral("--no-browser")});
    EXPECT_EQ(noCallback.exitCode, 1);
    EXPECT_EQ(noCallback.out.count(u'\n'), 1); // the address alone
    const auto forged =
        cli({QStringLiteral("login"), QStringLiteral("--no-browser"), QStringLiteral("--callback"),
             QStringLiteral("kestrolan://auth/callback?code=c&state=forged")});
    EXPECT_EQ(forged.exitCode, 1);
    EXPECT_TRUE(forged.err.endsWith(
        u"This sign-in does not match the current attempt. Start sign-in again.\n"));
    EXPECT_EQ(runTask(appTokens()->read()), std::nullopt);
}
