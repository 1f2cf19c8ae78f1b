#include "platform/instance_socket.h"
#include "platform/login_socket.h"
#include "qstring_printer.h"
#include "run_task.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtConcurrent>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

// send() blocks until the listener answers, and the listener answers from this thread's event
// loop: send from another thread and keep the loop running meanwhile.
bool sendWhileServing(const QString& path, const QByteArray& message) {
    auto future = QtConcurrent::run([=] { return InstanceSocket::send(path, message); });
    runUntil([&] { return future.isFinished(); });
    return future.result();
}

// What a crashed instance leaves: a socket file nobody listens on.
void leaveStaleSocket(const QString& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray native = QFile::encodeName(path);
    std::memcpy(address.sun_path, native.constData(), static_cast<size_t>(native.size()));
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(fd);
    ASSERT_TRUE(QFile::exists(path));
}

class InstanceSocketTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("kestrolan.sock"));
};

} // namespace

TEST_F(InstanceSocketTest, HandsOverTheCallbackExactlyAndActivation) {
    InstanceSocket first(path);
    ASSERT_TRUE(first.listen());
    QSignalSpy urls(&first, &InstanceSocket::urlReceived);
    QSignalSpy activations(&first, &InstanceSocket::activationRequested);

    // Percent-encoded text, '+' and '&' in values survive the trip unchanged.
    const QUrl callback = QUrl::fromEncoded(
        "kestrolan://auth/callback?code=a%2Bb%26c+d&state=Zx_-09abcdefghijKLMNOP");
    EXPECT_TRUE(sendWhileServing(path, InstanceSocket::openMessage(callback)));
    EXPECT_TRUE(sendWhileServing(path, InstanceSocket::activateMessage()));
    runUntil([&] { return urls.size() == 1 && activations.size() == 1; });
    EXPECT_EQ(urls[0][0].toUrl().toEncoded(), callback.toEncoded());

    // A second instance neither listens nor takes the first one's socket away.
    InstanceSocket second(path);
    EXPECT_FALSE(second.listen());
    EXPECT_TRUE(sendWhileServing(path, InstanceSocket::activateMessage()));
    runUntil([&] { return activations.size() == 2; });

    // A line that is neither form is answered but does nothing.
    EXPECT_TRUE(sendWhileServing(path, QByteArrayLiteral("launch missiles\n")));
    EXPECT_EQ(urls.size(), 1);
    EXPECT_EQ(activations.size(), 2);
}

TEST_F(InstanceSocketTest, NobodyListeningFailsAtOnceAndAStaleSocketIsTakenOver) {
    // No file, then a file nobody answers on: the message is not delivered.
    EXPECT_FALSE(InstanceSocket::send(path, InstanceSocket::activateMessage()));
    leaveStaleSocket(path);
    EXPECT_FALSE(InstanceSocket::send(path, InstanceSocket::activateMessage()));

    InstanceSocket next(path);
    ASSERT_TRUE(next.listen());
    QSignalSpy activations(&next, &InstanceSocket::activationRequested);
    EXPECT_TRUE(sendWhileServing(path, InstanceSocket::activateMessage()));
    runUntil([&] { return activations.size() == 1; });

    // A path too long for a socket address is refused, not truncated to another path.
    const QString tooLong = dir.path() + u'/' + QString(120, u'x');
    EXPECT_FALSE(InstanceSocket::send(tooLong, InstanceSocket::activateMessage()));
}

TEST(LoginSocket, IsNamedByTheAttemptsStateAndFitsASocketAddress) {
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    const QString state = QStringLiteral("AbCdEfGhIjKlMnOp_-qrstuvwxyz0123456789ABCDE");
    const auto callback =
        LoginSocket::pathFor(QUrl(u"kestrolan://auth/callback?code=x&state=" + state));
    ASSERT_TRUE(callback);
    EXPECT_EQ(*callback, runtime + u"/kestrolan-login-AbCdEfGhIjKlMnOp.sock");
    EXPECT_LT(QFile::encodeName(*callback).size(), 108);
    // The authorize address of the same attempt names the same socket.
    EXPECT_EQ(LoginSocket::pathFor(QUrl(u"http://127.0.0.1:8787/desktop/authorize?state=" + state +
                                        u"&code_challenge=abc")),
              callback);
    // No state, a short one, or one that could climb out of the directory: no socket.
    for (const auto& bad :
         {u"kestrolan://auth/callback?code=x"_s, u"kestrolan://auth/callback?state=short"_s,
          u"kestrolan://auth/callback?state=..%2F..%2F..%2Fetc%2Fpasswd0123"_s})
        EXPECT_FALSE(LoginSocket::pathFor(QUrl(bad))) << bad.toStdString();
}
