#include "platform/system_keychain_access.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "secret_service.h"
#include "storage/encrypted_local_storage.h"
#include "storage/key_cache.h"
#include "storage/keychain_local_key_store.h"
#include "storage/local_privacy_error.h"

#include <QTemporaryDir>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;
using Kind = LocalPrivacyError::Kind;

namespace {

const QString service = u"org.kestrolan.mac.local-configuration.v1"_s;

std::optional<Kind> failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    return std::nullopt;
}

class KeychainLocalKeyStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    // A new account for every use: the key cache lives as long as the process.
    static LocalAccountContext freshContext() {
        return LocalAccountContext::make(QUrl(u"https://api.example.com"_s), QUuid::createUuid());
    }
    std::optional<QByteArray> entry(const LocalAccountContext& context) {
        return runTask(access->read(service, context.storageID()));
    }
    // As if the process had just started: the next key request goes to the keyring.
    static void forgetCached(const LocalAccountContext& context) {
        KeyCache& cache = KeyCache::shared();
        const auto held = cache.lock();
        cache.drop(context.storageID());
    }

    std::shared_ptr<SystemKeychainAccess> access = std::make_shared<SystemKeychainAccess>();
    KeychainLocalKeyStore keys;
};

} // namespace

TEST_F(KeychainLocalKeyStoreTest, MakesKeepsAndForgetsOneBinaryKeyPerAccount) {
    const auto context = freshContext();
    EXPECT_EQ(failureOf([&] { keys.key(context, false); }), Kind::unavailable);
    EXPECT_EQ(entry(context), std::nullopt);

    const QByteArray key = keys.key(context, true);
    EXPECT_EQ(key.size(), 32);
    EXPECT_EQ(entry(context), key);
    EXPECT_EQ(keys.key(context, true), key);
    forgetCached(context);
    EXPECT_EQ(keys.key(context, false), key);

    // Another account gets a key of its own.
    const auto other = freshContext();
    const QByteArray otherKey = keys.key(other, true);
    EXPECT_NE(otherKey, key);

    keys.deleteKey(context);
    EXPECT_EQ(entry(context), std::nullopt);
    EXPECT_EQ(failureOf([&] { keys.key(context, false); }), Kind::unavailable);
    keys.deleteKey(context);
    EXPECT_EQ(entry(other), otherKey);
}

TEST_F(KeychainLocalKeyStoreTest, AnEntryOfTheWrongSizeIsUnavailableAndKept) {
    const auto context = freshContext();
    const QByteArray odd(16, '\x01');
    runTask(access->write(odd, service, context.storageID()));
    EXPECT_EQ(failureOf([&] { keys.key(context, false); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { keys.key(context, true); }), Kind::unavailable);
    EXPECT_EQ(entry(context), odd);
}

TEST_F(KeychainLocalKeyStoreTest, ThreadsAskingAtOnceShareOneNewKey) {
    const auto context = freshContext();
    constexpr int count = 4;
    std::array<QByteArray, count> results;
    std::atomic<int> finished = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            try {
                results[i] = keys.key(context, true);
            } catch (const LocalPrivacyError&) {
            }
            ++finished;
        });
    // The keyring is driven from this thread's event loop meanwhile.
    runUntil([&] { return finished == count; });
    for (auto& thread : threads)
        thread.join();
    for (const QByteArray& result : results)
        EXPECT_EQ(result, results[0]);
    EXPECT_EQ(results[0].size(), 32);
    forgetCached(context);
    EXPECT_EQ(keys.key(context, false), results[0]);
}

TEST_F(KeychainLocalKeyStoreTest, ALockedKeyringIsUnavailableWithoutWaiting) {
    const auto context = freshContext();
    SecretService::lock();
    EXPECT_EQ(failureOf([&] { keys.key(context, false); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { keys.key(context, true); }), Kind::unavailable);
    SecretService::unlock();
    EXPECT_EQ(entry(context), std::nullopt);
    EXPECT_EQ(keys.key(context, true).size(), 32);
}

TEST_F(KeychainLocalKeyStoreTest, SealedFilesWhoseKeyIsGoneStayUnreadableAndNoKeyIsMade) {
    QTemporaryDir temporary;
    ASSERT_TRUE(temporary.isValid());
    const auto context = freshContext();
    const auto shared = std::make_shared<KeychainLocalKeyStore>();
    const EncryptedLocalStorage storage(temporary.path(), context, shared);
    storage.write(R"({"v":1})", u"projects"_s);
    EXPECT_EQ(entry(context)->size(), 32);
    // Removed outside the app, seen by a process started afterwards.
    runTask(access->remove(service, context.storageID()));
    forgetCached(context);

    EXPECT_EQ(failureOf([&] { (void)storage.read(u"projects"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { storage.write(R"({"v":2})", u"projects"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { storage.write(R"({"v":2})", u"agents"_s); }), Kind::unavailable);
    EXPECT_EQ(entry(context), std::nullopt);

    // Forgetting the account clears the way for a fresh start.
    storage.forget();
    storage.write(R"({"v":3})", u"projects"_s);
    EXPECT_EQ(storage.read(u"projects"_s), R"({"v":3})");
    EXPECT_EQ(entry(context)->size(), 32);
}
