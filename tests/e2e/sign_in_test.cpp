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
#include <QUuid>
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
    EXPECT_EQ(before.exitCode, 4);
    EXPECT_EQ(before.err, u"Sign in to continue.\n" + signInHint);
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
    EXPECT_EQ(accountJson.out.count(u'\n'), 1); // compact: one line
    const auto accountObject = QJsonDocument::fromJson(accountJson.out.toUtf8()).object();
    EXPECT_EQ(accountObject.value(u"email").toString(), u"dev@localhost");
    EXPECT_EQ(accountObject.value(u"available_usd").toString(), u"25.00");

    const auto models = cli({QStringLiteral("models")});
    EXPECT_EQ(models.exitCode, 0) << models.err.toStdString();
    // The price column lines up on unavailable rows too.
    EXPECT_EQ(models.out,
              u"  test/old            Old        unavailable  $3.00 in · $15.00 out per 1M "
              u"tokens · 8K context\n"
              u"* kestrolan/echo      Small                   $0.000125 in · $12.34 out per 1M "
              u"tokens · 131K context\n"
              u"  kestrolan/scripted  Large one               Not provided in · Not provided out "
              u"per 1M tokens · 1.5M context\n");
    // The model last chosen in the app is the one marked.
    SettingsDefaults().setValue(QStringLiteral("lastUsedModel"),
                                QStringLiteral("kestrolan/scripted"));
    EXPECT_TRUE(cli({QStringLiteral("models")}).out.contains(u"\n* kestrolan/scripted"));
    const auto modelsJson = cli({QStringLiteral("models"), QStringLiteral("--json")});
    EXPECT_EQ(modelsJson.out.count(u'\n'), 1);
    const auto catalog = QJsonDocument::fromJson(modelsJson.out.toUtf8()).object();
    EXPECT_EQ(catalog.value(u"models").toArray().size(), 3);
    QList<bool> selected;
    for (const auto& model : catalog.value(u"models").toArray())
        selected << model.toObject().value(u"selected").toBool(true);
    EXPECT_EQ(selected, (QList<bool>{false, false, true}));
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
    EXPECT_EQ(after.exitCode, 4);
    EXPECT_EQ(after.err, u"Sign in to continue.\n" + signInHint);
    // Signing out again has nothing to do and says so.
    const auto again = cli({QStringLiteral("logout")});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.out, u"Not signed in.\n");
}

TEST_F(SignInEndToEnd, EveryCommandNeedingASignInExitsWithStatus4) {
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QList<QStringList> needing{
        {QStringLiteral("account")},
        {QStringLiteral("account"), QStringLiteral("--json")},
        {QStringLiteral("chats"), QStringLiteral("list")},
        {QStringLiteral("chats"), QStringLiteral("list"), QStringLiteral("--json")},
        {QStringLiteral("chats"), QStringLiteral("show"), id},
        {QStringLiteral("chats"), QStringLiteral("delete"), id},
    };
    const auto expectSignedOut = [&](const QString& firstLine) {
        for (const auto& arguments : needing) {
            const auto run = cli(arguments);
            EXPECT_EQ(run.exitCode, 4) << arguments.join(u' ').toStdString();
            EXPECT_EQ(run.err, firstLine + u'\n' + signInHint)
                << arguments.join(u' ').toStdString();
            EXPECT_EQ(run.out, u"");
        }
    };
    expectSignedOut(QStringLiteral("Sign in to continue."));

    // A token the service has revoked: its own words, then the hint; the token is forgotten.
    ASSERT_EQ(signIn().exitCode, 0);
    service.admin("POST", QStringLiteral("/admin/revoke-tokens"));
    const auto revoked = cli({QStringLiteral("account")});
    EXPECT_EQ(revoked.exitCode, 4);
    const QStringList lines = revoked.err.split(u'\n');
    ASSERT_EQ(lines.size(), 3) << revoked.err.toStdString();
    EXPECT_FALSE(lines[0].isEmpty());
    EXPECT_NE(lines[0], u"Sign in to continue.");
    EXPECT_EQ(lines[1] + u'\n', signInHint);
    EXPECT_EQ(runTask(appTokens()->read()), std::nullopt);
    expectSignedOut(QStringLiteral("Sign in to continue."));

    // The catalog needs no sign-in.
    EXPECT_EQ(cli({QStringLiteral("models")}).exitCode, 0);
}

TEST_F(SignInEndToEnd, LoginWhenSignedInSaysSoAndForceSignsInAgain) {
    ASSERT_EQ(signIn().exitCode, 0);
    const auto token = runTask(appTokens()->read());
    ASSERT_TRUE(token);

    // No sign-in address, no new token.
    const auto again = cli({QStringLiteral("login"), QStringLiteral("--no-browser")});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.out, u"Already signed in as dev@localhost.\n");
    EXPECT_TRUE(again.err.contains(u"kestrolan-cli login --force")) << again.err.toStdString();
    EXPECT_EQ(runTask(appTokens()->read()), token);

    // --force signs in anew, here as another account of the service.
    service.admin("POST", QStringLiteral("/admin/accounts"),
                  R"({"email":"alice@example.com","balance_usd":"2.00"})");
    service.admin("POST", QStringLiteral("/admin/sign-in-as"), R"({"email":"alice@example.com"})");
    const auto forced = signInWithCli(service.baseURL(), {QStringLiteral("--force")});
    EXPECT_EQ(forced.exitCode, 0) << forced.err.toStdString();
    EXPECT_EQ(forced.out, u"Signed in as alice@example.com\n");
    const auto account = cli({QStringLiteral("account")});
    EXPECT_TRUE(account.out.startsWith(u"Email: alice@example.com\nBalance: $2.00\n"))
        << account.out.toStdString();

    // A stored token the service no longer accepts does not count as signed in.
    service.admin("POST", QStringLiteral("/admin/revoke-tokens"),
                  R"({"email":"alice@example.com"})");
    const auto afterRevocation = signIn();
    EXPECT_EQ(afterRevocation.exitCode, 0) << afterRevocation.err.toStdString();
    EXPECT_EQ(afterRevocation.out, u"Signed in as alice@example.com\n");
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
