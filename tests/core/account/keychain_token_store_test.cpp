#include "account/keychain_token_store.h"
#include "platform/system_keychain_access.h"
#include "run_task.h"
#include "secret_service.h"
#include "service/client_error.h"
#include "service/configuration.h"

#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace std::chrono_literals;

namespace {

const QString service = QStringLiteral("org.kestrolan.mac");
const QString legacy = QStringLiteral("desktop-session");

ServerOrigin local() {
    return Configuration(QStringLiteral("http://127.0.0.1:8080")).origin();
}

class KeychainTokenStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    std::shared_ptr<KeychainTokenStore> store(ServerOrigin origin,
                                              std::shared_ptr<KeychainAccess> through = {}) {
        return std::make_shared<KeychainTokenStore>(std::move(origin), service, legacy,
                                                    through ? through : access);
    }
    std::optional<QString> entry(const QString& account) {
        const auto bytes = runTask(access->read(service, account));
        return bytes ? std::optional(QString::fromUtf8(*bytes)) : std::nullopt;
    }
    void putEntry(const QString& account, const QString& token) {
        runTask(access->write(token.toUtf8(), service, account));
    }

    std::shared_ptr<SystemKeychainAccess> access = std::make_shared<SystemKeychainAccess>();
};

std::optional<ClientError> failure(QCoro::Task<void> task) {
    try {
        runTask(std::move(task));
    } catch (const ClientError& error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

TEST_F(KeychainTokenStoreTest, KeepsOneEntryPerOriginAndCachesIt) {
    auto tokens = store(local());
    EXPECT_EQ(tokens->account(), u"desktop-session|http://127.0.0.1:8080");
    EXPECT_EQ(runTask(tokens->read()), std::nullopt);

    runTask(tokens->write(QStringLiteral("token-1")));
    EXPECT_EQ(entry(tokens->account()), u"token-1");
    auto other = store(Configuration(QStringLiteral("http://localhost:8080")).origin());
    EXPECT_EQ(runTask(other->read()), std::nullopt);

    // Once read, the token comes from the cache, not the keychain; a new store reads afresh.
    putEntry(tokens->account(), QStringLiteral("changed-behind-its-back"));
    EXPECT_EQ(runTask(tokens->read()), u"token-1");
    EXPECT_EQ(runTask(store(local())->read()), u"changed-behind-its-back");

    runTask(tokens->remove());
    EXPECT_EQ(entry(tokens->account()), std::nullopt);
    EXPECT_EQ(runTask(tokens->read()), std::nullopt);
    runTask(tokens->remove()); // nothing left: no error
}

TEST_F(KeychainTokenStoreTest, RemovesOnlyTheTokenItWasAskedAbout) {
    auto tokens = store(local());
    runTask(tokens->write(QStringLiteral("new")));
    EXPECT_FALSE(runTask(tokens->removeIfMatching(QStringLiteral("old"))));
    EXPECT_EQ(entry(tokens->account()), u"new");
    EXPECT_TRUE(runTask(tokens->removeIfMatching(QStringLiteral("new"))));
    EXPECT_EQ(entry(tokens->account()), std::nullopt);
    EXPECT_FALSE(runTask(tokens->removeIfMatching(QStringLiteral("new"))));
}

TEST_F(KeychainTokenStoreTest, NeverRemovesATokenAnotherProcessStoredSince) {
    // The app and kestrolan-cli share the entry: the app's cache may hold a token the other
    // replaced, and a late 401 for that token must not sign the new one out.
    auto app = store(local());
    auto cli = store(local());
    runTask(app->write(QStringLiteral("token-1")));
    runTask(cli->write(QStringLiteral("token-2")));
    EXPECT_FALSE(runTask(app->removeIfMatching(QStringLiteral("token-1"))));
    EXPECT_EQ(entry(app->account()), u"token-2");
    EXPECT_EQ(runTask(app->read()), u"token-2");
}

TEST_F(KeychainTokenStoreTest, MovesTheLegacyEntryOnlyOnTheProductionOrigin) {
    putEntry(legacy, QStringLiteral("legacy-token"));

    // Elsewhere the legacy entry belongs to nobody: ignored and left alone.
    auto elsewhere = store(local());
    EXPECT_EQ(runTask(elsewhere->read()), std::nullopt);
    runTask(elsewhere->write(QStringLiteral("local-token")));
    runTask(elsewhere->remove());
    EXPECT_EQ(entry(legacy), u"legacy-token");

    auto production = store(ServerOrigin::production());
    EXPECT_EQ(production->account(), u"desktop-session|https://api.kestrolan.com:443");
    EXPECT_EQ(runTask(production->read()), u"legacy-token");
    EXPECT_EQ(entry(production->account()), u"legacy-token");
    EXPECT_EQ(entry(legacy), std::nullopt);

    // Writing and removing on production also clear a legacy entry that reappeared.
    putEntry(legacy, QStringLiteral("stale"));
    runTask(production->write(QStringLiteral("fresh")));
    EXPECT_EQ(entry(legacy), std::nullopt);
    putEntry(legacy, QStringLiteral("stale"));
    runTask(production->remove());
    EXPECT_EQ(entry(legacy), std::nullopt);
    EXPECT_EQ(entry(production->account()), std::nullopt);
}

TEST_F(KeychainTokenStoreTest, OperationsRunOneAtATimeInArrivalOrder) {
    auto tokens = store(local());
    // Started together: each must see the one before it finished.
    auto first = tokens->write(QStringLiteral("a"));
    auto check = tokens->removeIfMatching(QStringLiteral("a"));
    auto second = tokens->write(QStringLiteral("b"));
    auto last = tokens->read();
    runTask(std::move(first));
    EXPECT_TRUE(runTask(std::move(check)));
    runTask(std::move(second));
    EXPECT_EQ(runTask(std::move(last)), u"b");
    EXPECT_EQ(entry(tokens->account()), u"b");
}

TEST_F(KeychainTokenStoreTest, ALockedKeyringNeverLosesTheStoredToken) {
    auto tokens = store(local());
    runTask(tokens->write(QStringLiteral("signed-in")));
    SecretService::lock();

    // A new process sees the locked keyring as empty...
    auto restarted = store(local());
    EXPECT_EQ(runTask(restarted->read()), std::nullopt);
    // ...and signing in again there must fail loudly, not replace the token.
    const auto error = failure(restarted->write(QStringLiteral("replacement")));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->description(), u"The sign-in token could not be accessed in Keychain.");

    SecretService::unlock();
    // The failed write left no claim behind in the cache.
    EXPECT_EQ(runTask(restarted->read()), u"signed-in");
    EXPECT_EQ(entry(tokens->account()), u"signed-in");
}

TEST_F(KeychainTokenStoreTest, ATimedOutWriteForgetsTheCachedToken) {
    // Long enough for a loaded machine to answer the unfrozen calls.
    auto tokens = store(local(), std::make_shared<SystemKeychainAccess>(1500ms));
    runTask(tokens->write(QStringLiteral("first")));
    {
        FrozenSecretService frozen;
        const auto error = failure(tokens->write(QStringLiteral("second")));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->status(), SystemKeychainAccess::timedOutStatus);
    }
    // The keychain may hold either token now; the store asks it instead of trusting the cache.
    // Its read queues behind the abandoned write, so the entry is settled once it returns.
    const auto read = runTask(tokens->read());
    const auto stored = entry(tokens->account());
    ASSERT_TRUE(stored);
    EXPECT_EQ(read, stored);
}
