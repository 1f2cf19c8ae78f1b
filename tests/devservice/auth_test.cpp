#include "devservice_process.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QThread>
#include <gtest/gtest.h>
#include <httplib.h>

using namespace kestrolan::test;

namespace {

HttpReply exchange(const DevServiceProcess& service, const QString& code, const QString& verifier) {
    return service.post(QStringLiteral("/api/desktop/token"),
                        QJsonObject{{QStringLiteral("code"), code},
                                    {QStringLiteral("code_verifier"), verifier},
                                    {QStringLiteral("device_name"), QStringLiteral("laptop")}});
}

QString authorizeCode(const DevServiceProcess& service, const QString& challenge) {
    const auto reply =
        service.get(DevServiceProcess::authorizePath(QStringLiteral("s"), challenge));
    EXPECT_EQ(reply.status, 302);
    return DevServiceProcess::callbackItem(reply.header("Location"), QStringLiteral("code"))
        .value_or(QString());
}

void expectInvalidGrant(const HttpReply& reply, const QString& message) {
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.error().value(QStringLiteral("code")).toString(), u"invalid_grant");
    EXPECT_EQ(reply.error().value(QStringLiteral("message")).toString(), message);
    EXPECT_EQ(reply.error().value(QStringLiteral("param")).toString(), u"code");
}

} // namespace

TEST(DevServiceAuth, CodeExchangeChecksTheVerifierAndIsSingleUse) {
    const DevServiceProcess service;
    const auto [verifier, challenge] = DevServiceProcess::pkce();

    // The state comes back exactly, whatever characters it holds.
    const auto state = QStringLiteral("a b&c=d+é/");
    const auto authorized = service.raw("GET", DevServiceProcess::authorizePath(state, challenge));
    ASSERT_TRUE(authorized.startsWith("HTTP/1.1 302 ")) << authorized.constData();
    const auto match = QRegularExpression(QStringLiteral("\\r\\nLocation: ([^\\r]*)\\r\\n"))
                           .match(QString::fromUtf8(authorized));
    ASSERT_TRUE(match.hasMatch());
    const auto location = match.captured(1).toUtf8();
    EXPECT_TRUE(location.startsWith("kestrolan://auth/callback?code=")) << location.constData();
    EXPECT_EQ(DevServiceProcess::callbackItem(location, QStringLiteral("state")), state);
    const auto code = DevServiceProcess::callbackItem(location, QStringLiteral("code")).value();

    // A malformed verifier is a bad request and leaves the code usable.
    const auto malformed = exchange(service, code, QStringLiteral("short"));
    EXPECT_EQ(malformed.status, 400);
    EXPECT_EQ(malformed.error().value(QStringLiteral("param")).toString(), u"code_verifier");

    const auto exchanged = exchange(service, code, verifier);
    ASSERT_EQ(exchanged.status, 200) << exchanged.body.constData();
    const auto token = exchanged.json().value(QStringLiteral("token")).toString();
    EXPECT_GE(token.size(), 43);
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$"))
                    .match(exchanged.json().value(QStringLiteral("expires_at")).toString())
                    .hasMatch());
    const auto identity = exchanged.json().value(QStringLiteral("account")).toObject();
    EXPECT_EQ(identity.value(QStringLiteral("email")).toString(), u"dev@localhost");
    EXPECT_EQ(identity.value(QStringLiteral("id")).toString().size(), 36);

    const auto account = service.get(QStringLiteral("/api/account"), token);
    EXPECT_EQ(account.status, 200);
    EXPECT_EQ(account.json().value(QStringLiteral("id")), identity.value(QStringLiteral("id")));

    expectInvalidGrant(exchange(service, code, verifier),
                       QStringLiteral("The sign-in code is unknown or was already used. Start "
                                      "sign-in again."));

    // A wrong verifier fails, and spends the code: the right one cannot follow it.
    const auto second = authorizeCode(service, challenge);
    const auto [otherVerifier, otherChallenge] = DevServiceProcess::pkce();
    Q_UNUSED(otherChallenge);
    expectInvalidGrant(exchange(service, second, otherVerifier),
                       QStringLiteral("The code verifier does not match this sign-in. Start "
                                      "sign-in again."));
    EXPECT_EQ(exchange(service, second, verifier).status, 400);

    // Strict body: an unknown key is refused.
    auto extra = QJsonObject{{QStringLiteral("code"), authorizeCode(service, challenge)},
                             {QStringLiteral("code_verifier"), verifier},
                             {QStringLiteral("device_name"), QStringLiteral("x")},
                             {QStringLiteral("grant_type"), QStringLiteral("code")}};
    const auto unknownKey = service.post(QStringLiteral("/api/desktop/token"), extra);
    EXPECT_EQ(unknownKey.status, 400);
    EXPECT_EQ(unknownKey.error().value(QStringLiteral("param")).toString(), u"grant_type");
}

TEST(DevServiceAuth, AReplayedCodeRevokesTheTokenIssuedFromIt) {
    const DevServiceProcess service;
    const auto [verifier, challenge] = DevServiceProcess::pkce();
    const auto bystander = service.signIn();

    const auto code = authorizeCode(service, challenge);
    const auto first = exchange(service, code, verifier);
    ASSERT_EQ(first.status, 200);
    const auto token = first.json().value(QStringLiteral("token")).toString();
    ASSERT_EQ(service.get(QStringLiteral("/api/account"), token).status, 200);

    // The code was seen twice, so it leaked: the second exchange fails and the first token dies.
    expectInvalidGrant(exchange(service, code, verifier),
                       QStringLiteral("The sign-in code is unknown or was already used. Start "
                                      "sign-in again."));
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), token).status, 401);
    // Whoever replays it needs no verifier to have it revoked.
    const auto another = authorizeCode(service, challenge);
    const auto second = exchange(service, another, verifier);
    ASSERT_EQ(second.status, 200);
    const auto [otherVerifier, otherChallenge] = DevServiceProcess::pkce();
    Q_UNUSED(otherChallenge);
    EXPECT_EQ(exchange(service, another, otherVerifier).status, 400);
    EXPECT_EQ(service
                  .get(QStringLiteral("/api/account"),
                       second.json().value(QStringLiteral("token")).toString())
                  .status,
              401);
    // Tokens from other codes are untouched.
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), bystander).status, 200);
}

TEST(DevServiceAuth, ExpiredCodeIsRefused) {
    const DevServiceProcess service(
        {.arguments = {QStringLiteral("--code-lifetime-ms"), QStringLiteral("150")}});
    const auto [verifier, challenge] = DevServiceProcess::pkce();
    const auto code = authorizeCode(service, challenge);
    QThread::msleep(250);
    expectInvalidGrant(exchange(service, code, verifier),
                       QStringLiteral("The sign-in code has expired. Start sign-in again."));

    // A fresh code within its lifetime still works.
    EXPECT_EQ(exchange(service, authorizeCode(service, challenge), verifier).status, 200);
}

TEST(DevServiceAuth, ConsentPageAllowsOrDenies) {
    const DevServiceProcess service({.autoApprove = false});
    const auto [verifier, challenge] = DevServiceProcess::pkce();

    const auto requestId = [&] {
        const auto page =
            service.get(DevServiceProcess::authorizePath(QStringLiteral("st"), challenge));
        EXPECT_EQ(page.status, 200);
        EXPECT_TRUE(page.header("Content-Type").startsWith("text/html"));
        const auto text = QString::fromUtf8(page.body);
        EXPECT_TRUE(text.contains(u"dev@localhost"));
        EXPECT_TRUE(text.contains(u">Allow</button>"));
        EXPECT_TRUE(text.contains(u">Deny</button>"));
        const auto match =
            QRegularExpression(QStringLiteral("name=\"request\" value=\"([^\"]+)\"")).match(text);
        EXPECT_TRUE(match.hasMatch());
        return match.captured(1);
    };
    const auto decide = [&](const QString& id, const char* decision) {
        auto client = service.client();
        const auto result = client->Post("/desktop/authorize",
                                         "request=" + id.toStdString() + "&decision=" + decision,
                                         "application/x-www-form-urlencoded");
        HttpReply reply;
        if (result) {
            reply.status = result->status;
            reply.headers.emplaceBack(
                "Location", QByteArray::fromStdString(result->get_header_value("Location")));
        }
        return reply;
    };

    const auto denied = decide(requestId(), "deny");
    EXPECT_EQ(denied.status, 302);
    EXPECT_EQ(denied.header("Location"), "kestrolan://auth/callback?error=access_denied&state=st");

    const auto id = requestId();
    const auto allowed = decide(id, "allow");
    ASSERT_EQ(allowed.status, 302);
    EXPECT_EQ(DevServiceProcess::callbackItem(allowed.header("Location"), QStringLiteral("state")),
              QStringLiteral("st"));
    const auto code =
        DevServiceProcess::callbackItem(allowed.header("Location"), QStringLiteral("code"));
    ASSERT_TRUE(code);
    EXPECT_EQ(exchange(service, *code, verifier).status, 200);

    // A page answers once.
    EXPECT_EQ(decide(id, "allow").status, 400);
}

TEST(DevServiceAuth, AuthorizeRefusesWhatIsNotS256) {
    const DevServiceProcess service;
    const auto [verifier, challenge] = DevServiceProcess::pkce();
    Q_UNUSED(verifier);
    const auto plain = service.get(QStringLiteral("/desktop/authorize?state=s&code_challenge=") +
                                   challenge + QStringLiteral("&code_challenge_method=plain"));
    EXPECT_EQ(plain.status, 400);
    const auto shortChallenge =
        service.get(DevServiceProcess::authorizePath(QStringLiteral("s"), challenge.first(42)));
    EXPECT_EQ(shortChallenge.status, 400);
    const auto noState = service.get(DevServiceProcess::authorizePath(QString(), challenge));
    EXPECT_EQ(noState.status, 400);
}

TEST(DevServiceAuth, RevokedAndUnknownTokensGet401) {
    const DevServiceProcess service;
    const auto first = service.signIn();
    const auto second = service.signIn();

    const auto missing = service.get(QStringLiteral("/api/account"));
    EXPECT_EQ(missing.status, 401);
    EXPECT_EQ(missing.error().value(QStringLiteral("code")).toString(), u"missing_token");
    // The envelope always carries its four keys.
    for (const auto* key : {"message", "type", "code", "param"})
        EXPECT_TRUE(missing.error().contains(QLatin1StringView(key))) << key;
    const auto unknown = service.get(QStringLiteral("/api/account"), QStringLiteral("kdev_nope"));
    EXPECT_EQ(unknown.status, 401);
    EXPECT_EQ(unknown.error().value(QStringLiteral("code")).toString(), u"invalid_token");

    // Logout revokes that token only.
    EXPECT_EQ(service.post(QStringLiteral("/api/logout"), QByteArray(), first).status, 200);
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), first).status, 401);
    EXPECT_EQ(service.post(QStringLiteral("/api/logout"), QByteArray(), first).status, 401);
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), second).status, 200);

    // Administration revokes every token of the account.
    const auto revoked = service.post(QStringLiteral("/admin/revoke-tokens"), QByteArray());
    EXPECT_EQ(revoked.json().value(QStringLiteral("revoked")).toInt(), 1);
    EXPECT_EQ(service.get(QStringLiteral("/api/chats"), second).status, 401);
    EXPECT_EQ(service.post(QStringLiteral("/api/chat"), QByteArray("{}"), second).status, 401);
}

TEST(DevServiceAuth, TokensAreStoredOnlyAsHashes) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    ASSERT_EQ(service.get(QStringLiteral("/api/account"), token).status, 200);
    QByteArray stored;
    for (const auto& name : QDir(service.dataDirectory()).entryList(QDir::Files)) {
        QFile file(service.dataDirectory() + u'/' + name);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        stored += file.readAll();
    }
    EXPECT_FALSE(stored.isEmpty());
    EXPECT_FALSE(stored.contains(token.toUtf8()));
    EXPECT_FALSE(stored.contains(token.sliced(5).toUtf8())); // without its prefix either
}
