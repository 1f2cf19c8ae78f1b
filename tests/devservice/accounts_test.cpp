#include "devservice_process.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <httplib.h>

using namespace kestrolan::test;

// Several accounts on one service, and which of them a browser sign-in signs in as.
namespace {

QJsonObject accountBehind(const DevServiceProcess& service, const QString& token) {
    const auto reply = service.get(QStringLiteral("/api/account"), token);
    EXPECT_EQ(reply.status, 200) << reply.body.constData();
    return reply.json();
}

HttpReply createAccount(const DevServiceProcess& service, const QJsonObject& body) {
    return service.post(QStringLiteral("/admin/accounts"), body);
}

QJsonObject alice() {
    return {{QStringLiteral("email"), QStringLiteral("Alice@Example.com")},
            {QStringLiteral("balance_usd"), QStringLiteral("3.50")}};
}

QJsonObject email(const char* address) {
    return {{QStringLiteral("email"), QString::fromUtf8(address)}};
}

} // namespace

TEST(DevServiceAccounts, CreatesAccountsOnceAndRefusesMalformedOnes) {
    const DevServiceProcess service;
    const auto created = createAccount(service, alice());
    ASSERT_EQ(created.status, 201) << created.body.constData();
    EXPECT_EQ(created.json().value(u"email").toString(), u"alice@example.com");
    EXPECT_EQ(created.json().value(u"balance_usd").toString(), u"3.50");
    EXPECT_EQ(created.json().value(u"available_usd").toString(), u"3.50");
    const auto id = created.json().value(u"id").toString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f-]{36}$")).match(id).hasMatch())
        << id.toStdString();

    // The same address in any case, and the development account, exist already.
    for (const auto& taken :
         {email("alice@example.com"), email(" ALICE@example.COM "), email("dev@localhost")}) {
        const auto again = createAccount(service, taken);
        EXPECT_EQ(again.status, 409);
        EXPECT_EQ(again.error().value(u"code").toString(), u"account_exists");
    }

    const auto refused = [&](const QJsonObject& body, const char* param) {
        const auto reply = createAccount(service, body);
        EXPECT_EQ(reply.status, 400) << QJsonDocument(body).toJson().constData();
        EXPECT_EQ(reply.error().value(u"param").toString(), QString::fromUtf8(param));
    };
    refused(email("nobody"), "email");
    refused(email("two@at@signs"), "email");
    refused(email("space in@side"), "email");
    refused(email("@localhost"), "email");
    refused(email((QString(250, u'a') + u"@b.cd").toUtf8().constData()), "email");
    refused({{QStringLiteral("email"), QStringLiteral("carol@example.com")},
             {QStringLiteral("balance_usd"), QStringLiteral("1.2345678")}},
            "balance_usd");
    refused({{QStringLiteral("email"), QStringLiteral("carol@example.com")},
             {QStringLiteral("role"), QStringLiteral("admin")}},
            "role");
    // The longest address that fits is taken; without a balance the account starts empty.
    const auto longest =
        createAccount(service, email((QString(249, u'a') + u"@b.cd").toUtf8().constData()));
    EXPECT_EQ(longest.status, 201);
    EXPECT_EQ(longest.json().value(u"balance_usd").toString(), u"0.00");

    // Every account keeps its ledger balanced from its first credit on.
    const auto statement =
        service.get(QStringLiteral("/admin/account?email=alice%40example.com")).json();
    EXPECT_EQ(statement.value(u"balance_millionths").toInteger(), 3'500'000);
    EXPECT_TRUE(statement.value(u"balanced").toBool());
}

TEST(DevServiceAccounts, SignInAsSwitchesTheAccountOfLaterSignIns) {
    const DevServiceProcess service;
    ASSERT_EQ(createAccount(service, alice()).status, 201);
    const auto devToken = service.signIn();
    EXPECT_EQ(accountBehind(service, devToken).value(u"email").toString(), u"dev@localhost");

    const auto unknown =
        service.post(QStringLiteral("/admin/sign-in-as"), email("eve@example.com"));
    EXPECT_EQ(unknown.status, 404);
    const auto chosen =
        service.post(QStringLiteral("/admin/sign-in-as"), email("ALICE@example.com"));
    ASSERT_EQ(chosen.status, 200) << chosen.body.constData();
    const auto aliceToken = service.signIn();
    const auto aliceAccount = accountBehind(service, aliceToken);
    EXPECT_EQ(aliceAccount.value(u"email").toString(), u"alice@example.com");
    EXPECT_EQ(aliceAccount.value(u"balance_usd").toString(), u"3.50");
    EXPECT_EQ(aliceAccount.value(u"id"), chosen.json().value(u"id"));
    // Tokens issued before keep their own account.
    EXPECT_EQ(accountBehind(service, devToken).value(u"email").toString(), u"dev@localhost");

    // Administration names the account by e-mail and touches no other.
    EXPECT_EQ(service
                  .post(QStringLiteral("/admin/balance"),
                        QJsonObject{{QStringLiteral("email"), QStringLiteral("alice@example.com")},
                                    {QStringLiteral("balance_usd"), QStringLiteral("1.25")}})
                  .status,
              200);
    EXPECT_EQ(accountBehind(service, aliceToken).value(u"balance_usd").toString(), u"1.25");
    EXPECT_EQ(accountBehind(service, devToken).value(u"balance_usd").toString(), u"25.00");
    const auto revoked =
        service.post(QStringLiteral("/admin/revoke-tokens"), email("alice@example.com"));
    EXPECT_EQ(revoked.json().value(u"revoked").toInt(), 1);
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), aliceToken).status, 401);
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), devToken).status, 200);

    // Back to the default.
    ASSERT_EQ(service.post(QStringLiteral("/admin/sign-in-as"), email("dev@localhost")).status,
              200);
    EXPECT_EQ(accountBehind(service, service.signIn()).value(u"email").toString(),
              u"dev@localhost");
}

TEST(DevServiceAccounts, ConsentPageOffersAndGrantsTheChosenAccount) {
    const DevServiceProcess service({.autoApprove = false});
    ASSERT_EQ(createAccount(service, alice()).status, 201);
    ASSERT_EQ(service.post(QStringLiteral("/admin/sign-in-as"), email("alice@example.com")).status,
              200);
    const auto [verifier, challenge] = DevServiceProcess::pkce();
    const auto page = service.get(DevServiceProcess::authorizePath(QStringLiteral("s"), challenge));
    const auto text = QString::fromUtf8(page.body);
    EXPECT_TRUE(text.contains(u"<strong>alice@example.com</strong>"));
    const auto request =
        QRegularExpression(QStringLiteral("name=\"request\" value=\"([^\"]+)\"")).match(text);
    ASSERT_TRUE(request.hasMatch());

    // Switching after the page was shown does not change what the page offered.
    ASSERT_EQ(service.post(QStringLiteral("/admin/sign-in-as"), email("dev@localhost")).status,
              200);
    const auto decided = service.client()->Post(
        "/desktop/authorize", "request=" + request.captured(1).toStdString() + "&decision=allow",
        "application/x-www-form-urlencoded");
    ASSERT_TRUE(decided);
    ASSERT_EQ(decided->status, 302);
    const auto code = DevServiceProcess::callbackItem(
        QByteArray::fromStdString(decided->get_header_value("Location")), QStringLiteral("code"));
    ASSERT_TRUE(code);
    const auto exchanged =
        service.post(QStringLiteral("/api/desktop/token"),
                     QJsonObject{{QStringLiteral("code"), *code},
                                 {QStringLiteral("code_verifier"), verifier},
                                 {QStringLiteral("device_name"), QStringLiteral("laptop")}});
    ASSERT_EQ(exchanged.status, 200);
    EXPECT_EQ(exchanged.json().value(u"account").toObject().value(u"email").toString(),
              u"alice@example.com");
}
