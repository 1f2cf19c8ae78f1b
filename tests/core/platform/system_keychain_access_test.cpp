#include "platform/system_keychain_access.h"
#include "run_task.h"
#include "secret_service.h"
#include "service/client_error.h"

#include <QElapsedTimer>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace std::chrono_literals;

namespace {

const QString service = QStringLiteral("org.kestrolan.test");

class SystemKeychainAccessTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    std::optional<QByteArray> read(SystemKeychainAccess& through, const QString& account) {
        return runTask(through.read(service, account));
    }

    SystemKeychainAccess access;
};

template <typename Task>
std::optional<ClientError> keychainFailure(Task task) {
    try {
        runTask(std::move(task));
    } catch (const ClientError& error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

TEST_F(SystemKeychainAccessTest, WritesReplacesReadsAndRemovesEntries) {
    EXPECT_EQ(read(access, QStringLiteral("alice")), std::nullopt);

    // Arbitrary bytes survive, not only text.
    const QByteArray binary("\x00\xff\x10secret\n", 10);
    runTask(access.write(binary, service, QStringLiteral("alice")));
    runTask(access.write(QByteArray("other"), service, QStringLiteral("bob")));
    EXPECT_EQ(read(access, QStringLiteral("alice")), binary);

    runTask(access.write(QByteArray("second"), service, QStringLiteral("alice")));
    EXPECT_EQ(read(access, QStringLiteral("alice")), QByteArray("second"));
    // Another service name is another entry.
    EXPECT_EQ(runTask(access.read(QStringLiteral("org.kestrolan.other"), QStringLiteral("alice"))),
              std::nullopt);

    runTask(access.remove(service, QStringLiteral("alice")));
    EXPECT_EQ(read(access, QStringLiteral("alice")), std::nullopt);
    EXPECT_EQ(read(access, QStringLiteral("bob")), QByteArray("other"));
    // Removing what is not there is no error.
    runTask(access.remove(service, QStringLiteral("alice")));
}

TEST_F(SystemKeychainAccessTest, ALockedKeyringRefusesWritesAndKeepsTheSecret) {
    runTask(access.write(QByteArray("kept"), service, QStringLiteral("alice")));
    SecretService::lock();
    ASSERT_TRUE(SecretService::isLocked());

    // Locked, the entry reads as absent, yet writing must fail rather than add a second one.
    EXPECT_EQ(read(access, QStringLiteral("alice")), std::nullopt);
    const auto failure =
        keychainFailure(access.write(QByteArray("replacement"), service, QStringLiteral("alice")));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind(), ClientError::Kind::keychain);
    EXPECT_EQ(failure->description(), u"The sign-in token could not be accessed in Keychain.");
    EXPECT_NE(failure->status(), 0);

    SecretService::unlock();
    ASSERT_FALSE(SecretService::isLocked());
    EXPECT_EQ(read(access, QStringLiteral("alice")), QByteArray("kept"));
}

TEST_F(SystemKeychainAccessTest, AHangingKeyringTimesOutAndQueuedCallsNeverRun) {
    SystemKeychainAccess impatient(1500ms); // enough for a loaded machine when not frozen
    runTask(impatient.write(QByteArray("before"), service, QStringLiteral("carol")));

    FrozenSecretService frozen;
    QElapsedTimer clock;
    clock.start();
    // The first call reaches the frozen daemon; the second waits behind it and runs out of time
    // before its turn, so it must never be carried out.
    auto hanging = impatient.read(service, QStringLiteral("carol"));
    auto queued = impatient.write(QByteArray("queued"), service, QStringLiteral("dave"));
    const auto first = keychainFailure(std::move(hanging));
    const auto second = keychainFailure(std::move(queued));
    EXPECT_LT(clock.elapsed(), 8000);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->kind(), ClientError::Kind::keychain);
    EXPECT_EQ(first->status(), SystemKeychainAccess::timedOutStatus);
    EXPECT_EQ(second->status(), SystemKeychainAccess::timedOutStatus);

    frozen.resume();
    // Once the daemon answers the abandoned call, the queue moves on.
    EXPECT_EQ(read(access, QStringLiteral("carol")), QByteArray("before"));
    EXPECT_EQ(read(access, QStringLiteral("dave")), std::nullopt);
}
