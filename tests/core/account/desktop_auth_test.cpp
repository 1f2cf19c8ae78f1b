#include "account/desktop_auth.h"
#include "memory_token_store.h"
#include "run_task.h"
#include "service/api_client.h"
#include "service/api_error.h"
#include "service/client_error.h"
#include "test_http_server.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpServer>
#include <QUrlQuery>
#include <future>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

const QString invalidCallback =
    QStringLiteral("The sign-in callback is invalid. Start sign-in again.");
const QString stateMismatch =
    QStringLiteral("This sign-in does not match the current attempt. Start sign-in again.");

TestResponse tokenResponse(const QByteArray& token) {
    return TestResponse::json(200, R"({"token":")" + token +
                                       R"(","expires_at":"2030-01-01T00:00:00Z",)"
                                       R"("account":{"id":null,"email":"ada@example.com"}})");
}

// Holds a response back until released, so that the test can act while a request is in flight.
struct Latch {
    std::promise<void> promise;
    std::shared_future<void> released = promise.get_future().share();

    void hold(TestResponse& response) {
        response.beforeSending = [released = released] { released.wait(); };
    }
    void release() { promise.set_value(); }
};

struct Fixture {
    Fixture()
        : configuration(server.baseURL())
        , tokens(std::make_shared<MemoryTokenStore>(configuration.origin()))
        , client(configuration, tokens)
        , auth(client, tokens) {}

    QUrl callback(const QString& query) const {
        return QUrl(QStringLiteral("kestrolan://auth/callback?") + query);
    }
    static QString stateOf(const QUrl& authorizeURL) {
        return QUrlQuery(authorizeURL).queryItemValue(QStringLiteral("state"));
    }
    void handle(const QUrl& url) {
        runTask(auth.handleCallback(url, QStringLiteral("workstation")));
    }

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
    DesktopAuth auth;
};

} // namespace

TEST(PKCE, DerivesTheS256ChallengeAndDrawsIndependentValues) {
    // The worked example of RFC 7636, appendix B.
    EXPECT_EQ(PKCE::challenge(QStringLiteral("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk")),
              u"E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");

    const PKCE pkce;
    static const QRegularExpression base64url(
        QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9_-]{43}")));
    EXPECT_TRUE(base64url.match(pkce.verifier).hasMatch()) << pkce.verifier.toStdString();
    EXPECT_TRUE(base64url.match(pkce.state).hasMatch()) << pkce.state.toStdString();
    EXPECT_NE(pkce.verifier, pkce.state);
    EXPECT_NE(PKCE().verifier, pkce.verifier);

    const QUrl url = pkce.authorizeURL(QUrl(QStringLiteral("https://api.kestrolan.com/")));
    EXPECT_EQ(url.toString(), u"https://api.kestrolan.com/desktop/authorize?state=" % pkce.state %
                                  u"&code_challenge=" % pkce.challenge() %
                                  u"&code_challenge_method=S256");
    EXPECT_EQ(pkce.authorizeURL(QUrl(QStringLiteral("http://127.0.0.1:8080"))).path(),
              u"/desktop/authorize");
}

TEST(PKCE, ARandomGeneratorFailureIsTheKeychainError) {
    int calls = 0;
    try {
        PKCE pkce([&calls](unsigned char* bytes, int size) -> qint32 {
            std::fill_n(bytes, size, 7);
            return ++calls == 2 ? -42 : 0;
        });
        FAIL() << "a failed draw must not give an attempt";
    } catch (const ClientError& error) {
        EXPECT_EQ(error.kind(), ClientError::Kind::keychain);
        EXPECT_EQ(error.status(), -42);
        EXPECT_EQ(error.description(), u"The sign-in token could not be accessed in Keychain.");
    }
}

TEST(PKCE, ValidatesTheCallbackInOrder) {
    const PKCE pkce;
    const auto code = [&pkce](const QString& url) -> QString {
        try {
            return u"code:" + pkce.code(QUrl(url));
        } catch (const ClientError& error) {
            return error.description();
        }
    };
    const QString state = u"state=" + pkce.state;
    EXPECT_EQ(code(u"kestrolan://auth/callback?code=c1&" + state), u"code:c1");
    // The first of repeated items counts.
    EXPECT_EQ(code(u"kestrolan://auth/callback?code=c1&code=c2&" + state + u"&state=x"),
              u"code:c1");
    EXPECT_EQ(code(u"kestrolan://auth/other?code=c1&" + state), invalidCallback);
    EXPECT_EQ(code(u"kestrolan://evil/callback?code=c1&" + state), invalidCallback);
    EXPECT_EQ(code(u"https://auth/callback?code=c1&" + state), invalidCallback);
    EXPECT_EQ(code(QStringLiteral("kestrolan://auth/callback?code=c1")), stateMismatch);
    EXPECT_EQ(code(QStringLiteral("kestrolan://auth/callback?code=c1&state=other")), stateMismatch);
    // A wrong state wins over an error, which wins over a missing code.
    EXPECT_EQ(code(QStringLiteral("kestrolan://auth/callback?error=access_denied&state=x")),
              stateMismatch);
    EXPECT_EQ(code(u"kestrolan://auth/callback?error=access_denied&code=c1&" + state),
              u"Sign-in was cancelled.");
    EXPECT_EQ(code(u"kestrolan://auth/callback?error=server_error&" + state), invalidCallback);
    EXPECT_EQ(code(u"kestrolan://auth/callback?code=&" + state), invalidCallback);
    EXPECT_EQ(code(u"kestrolan://auth/callback?" + state), invalidCallback);
}

TEST(DesktopAuth, SignsInOnceWithTheAttemptsVerifier) {
    Fixture f;
    f.server.enqueue(tokenResponse("token-1"));
    const QUrl authorize = f.auth.beginSignIn();
    EXPECT_TRUE(f.auth.isSigningIn());
    EXPECT_EQ(authorize.host(), u"127.0.0.1");
    EXPECT_EQ(authorize.path(), u"/desktop/authorize");

    const QUrl callback = f.callback(u"code=the-code&state=" + Fixture::stateOf(authorize));
    f.handle(callback);
    EXPECT_TRUE(f.auth.isSignedIn());
    EXPECT_FALSE(f.auth.isSigningIn());
    EXPECT_EQ(f.auth.errorMessage(), std::nullopt);
    EXPECT_EQ(f.auth.credentialRevision(), 1);
    EXPECT_EQ(f.tokens->token(), u"token-1");
    ASSERT_TRUE(f.auth.signedInAccount());
    EXPECT_EQ(f.auth.signedInAccount()->email, u"ada@example.com");

    const auto requests = f.server.requests();
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/api/desktop/token");
    EXPECT_FALSE(requests[0].headers.contains("authorization"));
    const auto body = QJsonDocument::fromJson(requests[0].body).object();
    EXPECT_EQ(body.value(u"code").toString(), u"the-code");
    EXPECT_EQ(body.value(u"device_name").toString(), u"workstation");
    EXPECT_EQ(PKCE::challenge(body.value(u"code_verifier").toString()),
              QUrlQuery(authorize).queryItemValue(QStringLiteral("code_challenge")));

    // The same callback again finds no attempt: the code is not exchanged twice.
    f.handle(callback);
    EXPECT_EQ(f.auth.errorMessage(), invalidCallback);
    EXPECT_TRUE(f.auth.isSignedIn());
    EXPECT_EQ(f.auth.credentialRevision(), 1);
    EXPECT_EQ(f.server.requestCount(), 1);
}

TEST(DesktopAuth, AWrongCallbackKeepsTheAttemptButADenialEndsIt) {
    Fixture f;
    f.server.enqueue(tokenResponse("token-1"));
    const QString state = Fixture::stateOf(f.auth.beginSignIn());

    f.handle(f.callback(QStringLiteral("code=c&state=forged")));
    EXPECT_EQ(f.auth.errorMessage(), stateMismatch);
    EXPECT_FALSE(f.auth.isSigningIn());
    f.handle(QUrl(u"kestrolan://auth/elsewhere?code=c&state=" + state));
    EXPECT_EQ(f.auth.errorMessage(), invalidCallback);
    EXPECT_EQ(f.server.requestCount(), 0);

    // The real callback of the same attempt still completes it.
    f.handle(f.callback(u"code=c&state=" + state));
    EXPECT_TRUE(f.auth.isSignedIn());
    EXPECT_EQ(f.auth.errorMessage(), std::nullopt);

    const QString second = Fixture::stateOf(f.auth.beginSignIn());
    f.handle(f.callback(u"error=access_denied&state=" + second));
    EXPECT_EQ(f.auth.errorMessage(), u"Sign-in was cancelled.");
    EXPECT_FALSE(f.auth.isSigningIn());
    f.handle(f.callback(u"code=c&state=" + second));
    EXPECT_EQ(f.auth.errorMessage(), invalidCallback);
    EXPECT_EQ(f.server.requestCount(), 1);
}

TEST(DesktopAuth, AFailedExchangeShowsTheServiceErrorAndUsesTheCodeOnce) {
    Fixture f;
    f.server.enqueue(TestResponse::json(
        400, R"({"error":{"message":"The code has expired.","code":"invalid_grant"}})"));
    const QString state = Fixture::stateOf(f.auth.beginSignIn());
    f.handle(f.callback(u"code=c&state=" + state));
    EXPECT_EQ(f.auth.errorMessage(), u"The code has expired.");
    EXPECT_FALSE(f.auth.isSigningIn());
    EXPECT_FALSE(f.auth.isSignedIn());
    EXPECT_EQ(f.tokens->token(), std::nullopt);

    f.handle(f.callback(u"code=c&state=" + state));
    EXPECT_EQ(f.auth.errorMessage(), invalidCallback);
    EXPECT_EQ(f.server.requestCount(), 1);
}

TEST(DesktopAuth, AnExchangeFinishingAfterACancelOrANewerAttemptInstallsNothing) {
    for (const bool newerAttempt : {false, true}) {
        Fixture f;
        Latch latch;
        auto response = tokenResponse("late-token");
        latch.hold(response);
        f.server.enqueue(response);

        const QString state = Fixture::stateOf(f.auth.beginSignIn());
        auto exchange = f.auth.handleCallback(f.callback(u"code=c&state=" + state),
                                              QStringLiteral("workstation"));
        runUntil([&] { return f.server.requestCount() == 1; });
        if (newerAttempt)
            f.auth.beginSignIn();
        else
            f.auth.cancelSignIn();
        latch.release();
        runTask(std::move(exchange));

        EXPECT_EQ(f.tokens->token(), std::nullopt) << newerAttempt;
        EXPECT_FALSE(f.tokens->log.contains(QStringLiteral("write late-token")));
        // The dropped token is revoked rather than left valid on the service.
        const auto requests = f.server.requests();
        ASSERT_EQ(requests.size(), 2);
        EXPECT_EQ(requests[1].target, "/api/logout");
        EXPECT_EQ(requests[1].header("authorization"), "Bearer late-token");
        EXPECT_FALSE(f.auth.isSignedIn());
        EXPECT_EQ(f.auth.credentialRevision(), 0);
        EXPECT_EQ(f.auth.isSigningIn(), newerAttempt);
        EXPECT_EQ(f.auth.errorMessage(), std::nullopt);
    }
}

TEST(DesktopAuth, ATokenThatCannotBeKeptIsRevokedAtOnce) {
    Fixture f;
    f.tokens->refuseWrites = 9; // the keyring refused the write
    f.server.enqueue(tokenResponse("unkept-token"));
    f.server.enqueue(TestResponse::json(204, {}));

    f.handle(f.callback(u"code=c&state=" + Fixture::stateOf(f.auth.beginSignIn())));
    EXPECT_EQ(f.auth.errorMessage(), u"The sign-in token could not be accessed in Keychain.");
    EXPECT_FALSE(f.auth.isSignedIn());
    EXPECT_FALSE(f.auth.isSigningIn());
    EXPECT_EQ(f.client.authorizationEpoch(), 0u);

    const auto requests = f.server.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[1].method, "POST");
    EXPECT_EQ(requests[1].target, "/api/logout");
    EXPECT_EQ(requests[1].header("authorization"), "Bearer unkept-token");
}

TEST(DesktopAuth, SigningInAgainRevokesThePreviousTokenOnceTheNewOneIsKept) {
    Fixture f;
    f.server.enqueue(tokenResponse("token-1"));
    f.handle(f.callback(u"code=c&state=" + Fixture::stateOf(f.auth.beginSignIn())));
    ASSERT_TRUE(f.auth.isSignedIn());
    EXPECT_EQ(f.server.requestCount(), 1); // nothing to revoke yet

    Latch latch;
    auto revoked = TestResponse::json(204, {});
    latch.hold(revoked);
    f.server.enqueue(tokenResponse("token-2"));
    f.server.enqueue(revoked);
    auto second =
        f.auth.handleCallback(f.callback(u"code=c&state=" + Fixture::stateOf(f.auth.beginSignIn())),
                              QStringLiteral("workstation"));
    runUntil([&] { return f.server.requestCount() == 3; });
    EXPECT_EQ(f.tokens->token(), u"token-2"); // kept before the old one is revoked
    latch.release();
    runTask(std::move(second));
    EXPECT_TRUE(f.auth.isSignedIn());
    EXPECT_EQ(f.auth.credentialRevision(), 2);
    auto requests = f.server.requests();
    EXPECT_EQ(requests[2].target, "/api/logout");
    EXPECT_EQ(requests[2].header("authorization"), "Bearer token-1");

    // A revocation that fails does not fail the sign-in.
    f.server.enqueue(tokenResponse("token-3"));
    f.server.enqueue(TestResponse::json(500, R"({"error":{"message":"Service unavailable."}})"));
    f.handle(f.callback(u"code=c&state=" + Fixture::stateOf(f.auth.beginSignIn())));
    EXPECT_TRUE(f.auth.isSignedIn());
    EXPECT_EQ(f.auth.errorMessage(), std::nullopt);
    EXPECT_EQ(f.tokens->token(), u"token-3");
    requests = f.server.requests();
    ASSERT_EQ(requests.size(), 5);
    EXPECT_EQ(requests[4].header("authorization"), "Bearer token-2");
}

TEST(DesktopAuth, ACallbackAfterACancelFindsNoAttempt) {
    Fixture f;
    const QString state = Fixture::stateOf(f.auth.beginSignIn());
    f.auth.cancelSignIn();
    EXPECT_FALSE(f.auth.isSigningIn());
    f.handle(f.callback(u"code=c&state=" + state));
    EXPECT_EQ(f.auth.errorMessage(), invalidCallback);
    EXPECT_EQ(f.server.requestCount(), 0);
}

TEST(DesktopAuth, RestoresAndLosesTheSignInWithTheClient) {
    Fixture f;
    f.tokens = std::make_shared<MemoryTokenStore>(f.configuration.origin(),
                                                  QStringLiteral("stored-token"));
    APIClient client(f.configuration, f.tokens);
    DesktopAuth auth(client, f.tokens);
    runTask(auth.restore());
    EXPECT_TRUE(auth.isSignedIn());

    // A 401 on any request revokes the token, and the sign-in with it.
    f.server.enqueue(TestResponse::json(401, R"({"error":{"message":"Signed out."}})"));
    EXPECT_THROW(runTask(client.account()), APIError);
    EXPECT_FALSE(auth.isSignedIn());
    EXPECT_EQ(f.tokens->token(), std::nullopt);
}

TEST(DesktopAuth, SignOutEndsSignedOutEvenWhenTheServiceIsUnreachable) {
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
        closedPort = probe.serverPort();
    }
    const Configuration configuration(u"http://127.0.0.1:" + QString::number(closedPort));
    auto tokens = std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t"));
    APIClient client(configuration, tokens);
    DesktopAuth auth(client, tokens);
    runTask(auth.restore());
    ASSERT_TRUE(auth.isSignedIn());

    const auto epoch = client.authorizationEpoch();
    runTask(auth.signOut());
    EXPECT_FALSE(auth.isSignedIn());
    EXPECT_FALSE(auth.isSigningOut());
    EXPECT_EQ(tokens->token(), std::nullopt);
    EXPECT_GT(client.authorizationEpoch(), epoch);
    ASSERT_TRUE(auth.errorMessage());
    EXPECT_FALSE(auth.errorMessage()->isEmpty());
}
