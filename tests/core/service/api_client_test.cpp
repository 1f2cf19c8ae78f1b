#include "memory_token_store.h"
#include "run_task.h"
#include "service/api_client.h"
#include "service/api_error.h"
#include "service/client_error.h"
#include "service/transport_error.h"
#include "test_http_server.h"

#include <QTcpServer>
#include <future>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace std::chrono_literals;

namespace {

struct Fixture {
    explicit Fixture(std::optional<QString> token = QStringLiteral("token-1"))
        : configuration(server.baseURL())
        , tokens(std::make_shared<MemoryTokenStore>(configuration.origin(), std::move(token)))
        , client(configuration, tokens) {}

    QCoro::Task<QByteArray> get(QString path, bool authenticated = true,
                                std::stop_token stop = {}) {
        auto prepared = co_await client.request(std::move(path), "GET", {}, authenticated);
        co_return co_await client.data(std::move(prepared), stop);
    }

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
};

template <typename E>
QString failure(auto task) {
    try {
        runTask(std::move(task));
    } catch (const E& error) {
        return error.description();
    }
    return QStringLiteral("<no error>");
}

} // namespace

TEST(APIClient, SendsJsonHeadersBearerTokenAndNoCookies) {
    Fixture f;
    auto ok = TestResponse::json(200, "{}");
    ok.addHeader("Set-Cookie", "session=abc; Path=/");
    f.server.enqueue(ok);
    f.server.enqueue(TestResponse::json(200, "{}"));

    runTask(f.get(QStringLiteral("/api/account")));
    runTask([](APIClient& client) -> QCoro::Task<QByteArray> {
        auto prepared = co_await client.request(QStringLiteral("/api/web/search"), "POST",
                                                QByteArray(R"({"query":"x"})"), true);
        co_return co_await client.data(std::move(prepared));
    }(f.client));

    const auto requests = f.server.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/api/account");
    EXPECT_EQ(requests[0].header("accept"), "application/json");
    EXPECT_EQ(requests[0].header("authorization"), "Bearer token-1");
    EXPECT_FALSE(requests[0].headers.contains("content-type"));
    EXPECT_EQ(requests[1].method, "POST");
    EXPECT_EQ(requests[1].header("content-type"), "application/json");
    EXPECT_EQ(requests[1].body, R"({"query":"x"})");
    EXPECT_FALSE(requests[1].headers.contains("cookie"));
}

TEST(APIClient, RefusesAuthenticatedRequestsWithoutATokenOfThisOrigin) {
    Fixture noToken(std::nullopt);
    EXPECT_EQ(failure<ClientError>(noToken.get(QStringLiteral("/api/account"))),
              u"Sign in to continue.");
    EXPECT_EQ(noToken.server.requestCount(), 0);

    // A token kept for another server is never sent to this one.
    Fixture f;
    auto foreign = std::make_shared<MemoryTokenStore>(
        Configuration(QStringLiteral("https://example.com")).origin(), QStringLiteral("t"));
    APIClient client(f.configuration, foreign);
    EXPECT_FALSE(runTask(client.restoreAuthorization()));
    EXPECT_EQ(failure<ClientError>([](APIClient& c) -> QCoro::Task<void> {
                  co_await c.request(QStringLiteral("/api/account"), "GET", {}, true);
              }(client)),
              u"Sign in to continue.");

    // The catalog needs no token.
    noToken.server.enqueue(TestResponse::json(200, "[]"));
    EXPECT_EQ(runTask(noToken.get(QStringLiteral("/api/catalog"), false)), "[]");
    EXPECT_FALSE(noToken.server.requests().at(0).headers.contains("authorization"));
}

TEST(APIClient, SurfacesRedirectsWithoutFollowingThem) {
    Fixture f;
    TestResponse redirect;
    redirect.status = 302;
    redirect.addHeader("Location", "/elsewhere");
    f.server.enqueue(redirect);
    f.server.enqueue(TestResponse::json(200, "{}"));

    EXPECT_EQ(failure<ClientError>(f.get(QStringLiteral("/api/account"))),
              u"Kestrolan could not complete the request (HTTP 302).");
    EXPECT_EQ(f.server.requestCount(), 1);
}

TEST(APIClient, MapsErrorStatusesToTheEnvelopeOrTheStatus) {
    Fixture f;
    f.server.enqueue(
        TestResponse::json(402, R"({"error":{"message":"Add credit to continue.","type":"billing",
                 "code":"insufficient_credit","param":null}})"));
    try {
        runTask(f.get(QStringLiteral("/api/chats")));
        ADD_FAILURE() << "no error";
    } catch (const APIError& error) {
        EXPECT_EQ(error.message(), u"Add credit to continue.");
        EXPECT_EQ(error.code(), QStringLiteral("insufficient_credit"));
        EXPECT_EQ(error.type(), QStringLiteral("billing"));
        EXPECT_FALSE(error.param().has_value());
    }

    f.server.enqueue(TestResponse::json(502, "<html>Bad gateway</html>"));
    EXPECT_EQ(failure<ClientError>(f.get(QStringLiteral("/api/chats"))),
              u"Kestrolan could not complete the request (HTTP 502).");
    // An envelope without a message is not the service's error either.
    f.server.enqueue(TestResponse::json(500, R"({"error":{"code":"x"}})"));
    EXPECT_EQ(failure<ClientError>(f.get(QStringLiteral("/api/chats"))),
              u"Kestrolan could not complete the request (HTTP 500).");
}

TEST(APIClient, CountsTheBodyLimitWhileReading) {
    Fixture f;
    const QByteArray exact(APIClient::maxResponseBytes, 'a');
    f.server.enqueue(TestResponse::json(200, exact));
    EXPECT_EQ(runTask(f.get(QStringLiteral("/big"))).size(), APIClient::maxResponseBytes);

    // One byte more fails, whether the length was announced or the body was chunked.
    for (const auto framing : {TestResponse::Framing::contentLength, TestResponse::Framing::chunked,
                               TestResponse::Framing::untilClose}) {
        auto tooBig = TestResponse::json(200, exact + 'b');
        tooBig.framing = framing;
        tooBig.pieceSize = 65536;
        f.server.enqueue(tooBig);
        EXPECT_EQ(failure<ClientError>(f.get(QStringLiteral("/big"))),
                  u"The response was too large.");
    }
}

TEST(APIClient, OneSignOutForManyUnauthorizedAnswers) {
    Fixture f;
    f.tokens->delay = 5ms;
    int unauthorized = 0;
    int invalidated = 0;
    QObject owner;
    f.client.setOnUnauthorized([&] { ++unauthorized; });
    f.client.onAuthorizationInvalidated(&owner, [&] { ++invalidated; });

    // Answer only once both requests are in, so both carry the same epoch.
    std::promise<void> bothArrived;
    auto arrived = bothArrived.get_future().share();
    f.server.setHandler([&](const RecordedRequest&) {
        if (f.server.requestCount() == 2)
            bothArrived.set_value();
        auto response = TestResponse::json(401, R"({"error":{"message":"Token revoked."}})");
        response.beforeSending = [arrived] { arrived.wait(); };
        return response;
    });

    auto first = f.get(QStringLiteral("/api/chats"));
    auto second = f.get(QStringLiteral("/api/account"));
    EXPECT_EQ(failure<APIError>(std::move(first)), u"Token revoked.");
    EXPECT_EQ(failure<APIError>(std::move(second)), u"Token revoked.");

    EXPECT_EQ(f.tokens->removals, 1);
    EXPECT_FALSE(f.tokens->token().has_value());
    EXPECT_EQ(f.client.authorizationEpoch(), 1u);
    EXPECT_EQ(unauthorized, 1);
    EXPECT_EQ(invalidated, 1);
}

TEST(APIClient, AnswersPreparedUnderAnOlderSignInAreDiscarded) {
    Fixture f;
    std::promise<void> release;
    auto released = release.get_future().share();
    auto held = TestResponse::json(200, R"({"email":"old@example.com"})");
    held.beforeSending = [released] { released.wait(); };
    f.server.enqueue(held);

    auto inFlight = f.get(QStringLiteral("/api/account"));
    runUntil([&] { return f.server.requestCount() == 1; });
    runTask(f.client.installToken(QStringLiteral("token-2")));
    release.set_value();
    EXPECT_EQ(failure<ClientError>(std::move(inFlight)), u"Sign in to continue.");

    // A late 401 for the old token never signs out the new sign-in.
    int unauthorized = 0;
    f.client.setOnUnauthorized([&] { ++unauthorized; });
    std::promise<void> releaseStale;
    auto staleReleased = releaseStale.get_future().share();
    auto stale = TestResponse::json(401, "{}");
    stale.beforeSending = [staleReleased] { staleReleased.wait(); };
    f.server.enqueue(stale);
    auto staleRequest = f.get(QStringLiteral("/api/account"));
    // The first install also revoked the replaced token: that was the second request.
    runUntil([&] { return f.server.requestCount() == 3; });
    runTask(f.client.installToken(QStringLiteral("token-3")));
    releaseStale.set_value();
    EXPECT_EQ(failure<ClientError>(std::move(staleRequest)),
              u"Kestrolan could not complete the request (HTTP 401).");
    EXPECT_EQ(f.tokens->token(), QStringLiteral("token-3"));
    EXPECT_EQ(unauthorized, 0);
    EXPECT_EQ(f.client.authorizationEpoch(), 2u);
}

TEST(APIClient, TheGateSerialisesCredentialWorkInArrivalOrder) {
    Fixture f(std::nullopt);
    f.tokens->delay = 20ms;
    f.server.setHandler([](const RecordedRequest&) { return TestResponse::json(200, "{}"); });

    // The read queued behind the write sees the new token, never a half-replaced one.
    auto install = f.client.installToken(QStringLiteral("fresh"));
    auto request = f.get(QStringLiteral("/api/account"));
    auto reinstall = f.client.installToken(QStringLiteral("fresher"));
    runTask(std::move(install));
    runTask(std::move(request));
    runTask(std::move(reinstall));

    // Each install reads the token it replaces first, to revoke it.
    EXPECT_EQ(f.tokens->log, (QStringList{QStringLiteral("read"), QStringLiteral("write fresh"),
                                          QStringLiteral("read"), QStringLiteral("read"),
                                          QStringLiteral("write fresher")}));
    EXPECT_EQ(f.server.requests().at(0).header("authorization"), "Bearer fresh");
    EXPECT_EQ(f.client.authorizationEpoch(), 2u);
}

TEST(APIClient, RevocationObserversAreHeldWeakly) {
    Fixture f;
    int kept = 0;
    int gone = 0;
    QObject keeper;
    auto* leaver = new QObject;
    f.client.onAuthorizationInvalidated(&keeper, [&] { ++kept; });
    f.client.onAuthorizationInvalidated(leaver, [&] { ++gone; });
    f.client.invalidateAuthorization();
    delete leaver;
    f.client.invalidateAuthorization();
    EXPECT_EQ(kept, 2);
    EXPECT_EQ(gone, 1);
    // Invalidation leaves the stored token alone.
    EXPECT_EQ(f.tokens->token(), QStringLiteral("token-1"));
}

TEST(APIClient, LogoutSignsOutLocallyEvenWhenTheServiceFails) {
    Fixture f;
    f.server.enqueue(TestResponse::json(204, {}));
    runTask(f.client.logout());
    EXPECT_EQ(f.server.requests().at(0).target, "/api/logout");
    EXPECT_EQ(f.server.requests().at(0).header("authorization"), "Bearer token-1");
    EXPECT_FALSE(f.tokens->token().has_value());
    EXPECT_EQ(f.client.authorizationEpoch(), 1u);

    runTask(f.client.installToken(QStringLiteral("token-2")));
    f.server.enqueue(TestResponse::json(500, R"({"error":{"message":"Service unavailable."}})"));
    EXPECT_EQ(failure<APIError>(f.client.logout()), u"Service unavailable.");
    EXPECT_FALSE(f.tokens->token().has_value());
    EXPECT_EQ(f.client.authorizationEpoch(), 3u);
}

TEST(APIClient, LogoutLeavesASignInThatCompletedMeanwhile) {
    Fixture f;
    std::promise<void> release;
    auto released = release.get_future().share();
    auto held = TestResponse::json(204, {});
    held.beforeSending = [released] { released.wait(); };
    f.server.enqueue(held);
    f.server.setHandler([](const RecordedRequest&) { return TestResponse::json(200, "{}"); });

    auto logout = f.client.logout();
    runUntil([&] { return f.server.requestCount() == 1; });
    runTask(f.client.installToken(QStringLiteral("token-2")));
    release.set_value();
    runTask(std::move(logout));

    EXPECT_EQ(f.tokens->token(), QStringLiteral("token-2"));
    EXPECT_EQ(f.client.authorizationEpoch(), 1u);
    runTask(f.get(QStringLiteral("/api/account")));
    EXPECT_EQ(f.server.requests().last().header("authorization"), "Bearer token-2");
}

TEST(APIClient, AnUnauthorizedLogoutSignsOutOnce) {
    Fixture f;
    int unauthorized = 0;
    int invalidated = 0;
    QObject owner;
    f.client.setOnUnauthorized([&] { ++unauthorized; });
    f.client.onAuthorizationInvalidated(&owner, [&] { ++invalidated; });
    f.server.enqueue(TestResponse::json(401, R"({"error":{"message":"Token revoked."}})"));

    EXPECT_EQ(failure<APIError>(f.client.logout()), u"Token revoked.");
    EXPECT_FALSE(f.tokens->token().has_value());
    EXPECT_EQ(f.client.authorizationEpoch(), 1u);
    EXPECT_EQ(unauthorized, 1);
    EXPECT_EQ(invalidated, 1);
}

TEST(APIClient, AThrowingRevocationObserverHidesNothing) {
    Fixture f;
    QObject owner;
    int later = 0;
    int unauthorized = 0;
    f.client.onAuthorizationInvalidated(&owner, [] { throw std::runtime_error("observer"); });
    f.client.onAuthorizationInvalidated(&owner, [&] { ++later; });
    f.client.setOnUnauthorized([&] { ++unauthorized; });
    f.server.enqueue(TestResponse::json(401, R"({"error":{"message":"Token revoked."}})"));

    EXPECT_EQ(failure<APIError>(f.get(QStringLiteral("/api/account"))), u"Token revoked.");
    EXPECT_EQ(later, 1);
    EXPECT_EQ(unauthorized, 1);
    EXPECT_FALSE(f.tokens->token().has_value());

    // Nor does a sign-out handler that throws.
    runTask(f.client.installToken(QStringLiteral("token-2")));
    f.client.setOnUnauthorized([&] {
        ++unauthorized;
        throw std::runtime_error("handler");
    });
    f.server.enqueue(TestResponse::json(401, R"({"error":{"message":"Token revoked."}})"));
    EXPECT_EQ(failure<APIError>(f.get(QStringLiteral("/api/account"))), u"Token revoked.");
    EXPECT_EQ(unauthorized, 2);
    EXPECT_EQ(f.client.authorizationEpoch(), 3u);
}

TEST(APIClient, WorkWaitingOnADestroyedClientEndsCancelled) {
    TestHttpServer server;
    const Configuration configuration(server.baseURL());
    auto tokens = std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t"));
    tokens->delay = 50ms;
    auto client = std::make_unique<APIClient>(configuration, tokens);

    // The first holds the gate while the store reads; the others queue behind it.
    auto reading = client->restoreAuthorization();
    auto installing = client->installToken(QStringLiteral("t2"));
    auto requesting = [](APIClient& c) -> QCoro::Task<void> {
        co_await c.request(QStringLiteral("/api/account"), "GET", {}, true);
    }(*client);
    client.reset();

    EXPECT_THROW(runTask(std::move(reading)), CancellationError);
    EXPECT_THROW(runTask(std::move(installing)), CancellationError);
    EXPECT_THROW(runTask(std::move(requesting)), CancellationError);
    EXPECT_EQ(tokens->log, QStringList{QStringLiteral("read")});
    EXPECT_EQ(tokens->token(), QStringLiteral("t"));

    // A request waiting for its answer ends the same way.
    tokens->delay = 0ms;
    client = std::make_unique<APIClient>(configuration, tokens);
    std::promise<void> release;
    auto held = TestResponse::json(200, "{}");
    held.beforeSending = [released = release.get_future().share()] { released.wait(); };
    server.enqueue(held);
    auto fetching = client->account();
    runUntil([&] { return server.requestCount() == 1; });
    client.reset();
    EXPECT_THROW(runTask(std::move(fetching)), CancellationError);
    release.set_value();
}

TEST(APIClient, TransportFailuresAndTimeOuts) {
    // Nothing listens on a port that was just released.
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
        closedPort = probe.serverPort();
    }
    Configuration closed(QStringLiteral("http://127.0.0.1:") + QString::number(closedPort));
    APIClient unreachable(closed, std::make_shared<MemoryTokenStore>(closed.origin()));
    EXPECT_EQ(failure<TransportError>([](APIClient& c) -> QCoro::Task<void> {
                  auto prepared =
                      co_await c.request(QStringLiteral("/api/catalog"), "GET", {}, false);
                  co_await c.data(std::move(prepared));
              }(unreachable)),
              u"Could not connect to the server.");

    Fixture f;
    f.client.session().setTimeouts({.transfer = 300ms, .total = 1500ms});
    auto stalled = TestResponse::json(200, QByteArray(100, 'x'));
    stalled.pieceSize = 10;
    stalled.pieceDelay = 5s; // one piece, then silence longer than the transfer time-out
    f.server.enqueue(stalled);
    EXPECT_EQ(failure<TransportError>(f.get(QStringLiteral("/slow"))), u"The request timed out.");

    // Steady trickle: never idle for long, but longer than the total allowed.
    auto trickle = TestResponse::json(200, QByteArray(100, 'x'));
    trickle.pieceSize = 1;
    trickle.pieceDelay = 50ms;
    f.server.enqueue(trickle);
    EXPECT_EQ(failure<TransportError>(f.get(QStringLiteral("/slow"))), u"The request timed out.");

    // A body cut short is no answer.
    auto dropped = TestResponse::json(200, QByteArray(1000, 'x'));
    dropped.dropAfter = 10;
    f.server.enqueue(dropped);
    EXPECT_EQ(failure<TransportError>(f.get(QStringLiteral("/drop"))),
              u"The network connection was lost.");
}

TEST(APIClient, StopTokenAbortsTheTransfer) {
    Fixture f;
    auto slow = TestResponse::json(200, QByteArray(1000, 'x'));
    slow.pieceSize = 10;
    slow.pieceDelay = 100ms;
    f.server.enqueue(slow);

    std::stop_source stop;
    auto task = f.get(QStringLiteral("/slow"), true, stop.get_token());
    runUntil([&] { return f.server.requestCount() == 1; });
    const auto started = std::chrono::steady_clock::now();
    stop.request_stop();
    EXPECT_EQ(failure<CancellationError>(std::move(task)), u"The operation was cancelled.");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);

    std::stop_source already;
    already.request_stop();
    EXPECT_THROW(runTask(f.get(QStringLiteral("/x"), true, already.get_token())),
                 CancellationError);
    EXPECT_EQ(f.server.requestCount(), 1);
}
