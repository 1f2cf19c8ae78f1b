#include "account/account_model.h"
#include "memory_token_store.h"
#include "run_task.h"
#include "service/api_client.h"
#include "test_http_server.h"

#include <QSignalSpy>
#include <future>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

QByteArray accountJson(const QByteArray& balance, bool zeroRetention = false) {
    return R"({"id":"6f1c1a52-8b9e-4a57-9a53-3f0d8e0b7a11","zero_retention":{"enabled":)" +
           QByteArray(zeroRetention ? "true" : "false") +
           R"(},"email":"ada@example.com","balance_usd":")" + balance +
           R"(","held_usd":"0.25","available_usd":"9.75"})";
}

struct Fixture {
    Fixture()
        : configuration(server.baseURL())
        , tokens(std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t")))
        , client(configuration, tokens)
        , model(client) {}

    void refresh(bool force, const QDateTime& now) { runTask(model.refresh(force, now)); }

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
    AccountModel model;
    const QDateTime start = QDateTime::fromSecsSinceEpoch(1'700'000'000);
};

} // namespace

TEST(AccountModel, LoadsTheAccountAndThrottlesUnforcedRefreshes) {
    Fixture f;
    EXPECT_FALSE(f.model.canSaveChats());
    f.server.setHandler(
        [](const RecordedRequest&) { return TestResponse::json(200, accountJson("10")); });
    QSignalSpy changes(&f.model, &AccountModel::accountChanged);

    f.refresh(false, f.start);
    ASSERT_TRUE(f.model.account());
    EXPECT_EQ(f.model.account()->email, u"ada@example.com");
    EXPECT_EQ(f.model.account()->balanceUSD, u"10");
    EXPECT_EQ(f.model.account()->availableUSD, u"9.75");
    EXPECT_TRUE(f.model.canSaveChats());
    EXPECT_EQ(f.server.requests().value(0).header("authorization"), "Bearer t");

    f.refresh(false, f.start.addSecs(29));
    EXPECT_EQ(f.server.requestCount(), 1);
    f.refresh(false, f.start.addSecs(30));
    EXPECT_EQ(f.server.requestCount(), 2);
    f.refresh(true, f.start.addSecs(31));
    EXPECT_EQ(f.server.requestCount(), 3);
    // The same record three times is one change for observers.
    EXPECT_EQ(changes.count(), 1);
}

TEST(AccountModel, AFailureKeepsTheAccountAndZeroRetentionStopsSaving) {
    Fixture f;
    f.server.enqueue(TestResponse::json(200, accountJson("10", true)));
    f.server.enqueue(TestResponse::json(500, R"({"error":{"message":"Try again later."}})"));
    f.server.enqueue(TestResponse::json(200, R"({"email":"ada@example.com"})"));

    f.refresh(false, f.start);
    EXPECT_TRUE(f.model.account()->zeroRetention.enabled);
    EXPECT_FALSE(f.model.canSaveChats());

    f.refresh(true, f.start);
    EXPECT_EQ(f.model.errorMessage(), u"Try again later.");
    ASSERT_TRUE(f.model.account());
    f.refresh(true, f.start);
    EXPECT_EQ(f.model.errorMessage(), u"Kestrolan returned an unreadable response.");
    EXPECT_EQ(f.model.account()->balanceUSD, u"10");
    // A failure does not count as a refresh for the throttle.
    f.server.enqueue(TestResponse::json(200, accountJson("10", true)));
    f.refresh(false, f.start.addSecs(31));
    EXPECT_EQ(f.model.errorMessage(), std::nullopt);
    EXPECT_EQ(f.server.requestCount(), 4);
}

TEST(AccountModel, AForcedRefreshDuringOneRunsExactlyOnceMoreAfterIt) {
    Fixture f;
    std::promise<void> promise;
    std::shared_future<void> released = promise.get_future().share();
    auto slow = TestResponse::json(200, accountJson("1"));
    slow.beforeSending = [released] { released.wait(); };
    f.server.enqueue(slow);
    f.server.enqueue(TestResponse::json(200, accountJson("2")));

    auto running = f.model.refresh(false, f.start);
    runUntil([&] { return f.server.requestCount() == 1; });
    EXPECT_TRUE(f.model.isRefreshing());
    runTask(f.model.refresh(true, f.start));
    runTask(f.model.refresh(true, f.start));
    runTask(f.model.refresh(false, f.start));
    promise.set_value();
    runTask(std::move(running));

    EXPECT_EQ(f.server.requestCount(), 2);
    EXPECT_EQ(f.model.account()->balanceUSD, u"2");
    EXPECT_FALSE(f.model.isRefreshing());
}

TEST(AccountModel, ClearDuringARequestLeavesNoAccount) {
    Fixture f;
    f.server.enqueue(TestResponse::json(200, accountJson("1")));
    f.refresh(false, f.start);
    ASSERT_TRUE(f.model.account());

    std::promise<void> promise;
    std::shared_future<void> released = promise.get_future().share();
    auto slow = TestResponse::json(200, accountJson("2"));
    slow.beforeSending = [released] { released.wait(); };
    f.server.enqueue(slow);
    auto running = f.model.refresh(true, f.start);
    runUntil([&] { return f.server.requestCount() == 2; });
    f.model.clear();
    promise.set_value();
    runTask(std::move(running));

    EXPECT_EQ(f.model.account(), std::nullopt);
    EXPECT_FALSE(f.model.canSaveChats());
    EXPECT_FALSE(f.model.isRefreshing());
    // Cleared means not recently refreshed: the next unforced refresh asks again.
    f.server.enqueue(TestResponse::json(200, accountJson("3")));
    f.refresh(false, f.start);
    EXPECT_EQ(f.model.account()->balanceUSD, u"3");
}
