#include "chat_request.h"
#include "devservice_process.h"
#include "event_stream.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <csignal>
#include <gtest/gtest.h>
#include <httplib.h>
#include <thread>

using namespace kestrolan::test;

namespace {

void arm(const DevServiceProcess& service, const QJsonObject& fault) {
    const auto reply = service.post(QStringLiteral("/admin/fault"), fault);
    ASSERT_EQ(reply.status, 200) << reply.body.constData();
}

} // namespace

TEST(DevServiceLifecycle, InjectedFaultsAnswerTheNextMatchingRequest) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto account = QStringLiteral("/api/account");

    arm(service, {{QStringLiteral("kind"), QStringLiteral("redirect")}});
    const auto redirected = service.get(account, token);
    EXPECT_EQ(redirected.status, 302);
    EXPECT_EQ(redirected.header("Location"), "/api/redirected");
    EXPECT_EQ(service.get(account, token).status, 200); // one request only

    arm(service, {{QStringLiteral("kind"), QStringLiteral("error-envelope")},
                  {QStringLiteral("status"), 503},
                  {QStringLiteral("message"), QStringLiteral("Down for maintenance.")}});
    const auto enveloped = service.get(account, token);
    EXPECT_EQ(enveloped.status, 503);
    EXPECT_EQ(enveloped.error().value(QStringLiteral("message")).toString(),
              u"Down for maintenance.");
    EXPECT_EQ(enveloped.error().value(QStringLiteral("code")).toString(), u"injected_fault");

    arm(service,
        {{QStringLiteral("kind"), QStringLiteral("error-plain")}, {QStringLiteral("status"), 502}});
    const auto plain = service.get(account, token);
    EXPECT_EQ(plain.status, 502);
    EXPECT_TRUE(plain.json().isEmpty());
    EXPECT_TRUE(plain.header("Content-Type").startsWith("text/html"));

    // Only requests under the given path; the others pass.
    arm(service, {{QStringLiteral("kind"), QStringLiteral("oversized")},
                  {QStringLiteral("path"), QStringLiteral("/api/catalog")},
                  {QStringLiteral("bytes"), 2'097'153},
                  {QStringLiteral("count"), 2}});
    EXPECT_EQ(service.get(account, token).status, 200);
    for (int i = 0; i < 2; ++i) {
        const auto oversized = service.get(QStringLiteral("/api/catalog"));
        EXPECT_EQ(oversized.status, 200);
        EXPECT_EQ(oversized.body.size(), 2'097'153);
        EXPECT_EQ(oversized.header("Content-Length"), "2097153");
    }
    EXPECT_LT(service.get(QStringLiteral("/api/catalog")).body.size(), 10'000);

    // A slow body is the real body, trickled.
    const auto normal = service.get(account, token).body;
    arm(service, {{QStringLiteral("kind"), QStringLiteral("slow")},
                  {QStringLiteral("chunk_bytes"), 40},
                  {QStringLiteral("interval_ms"), 50}});
    QElapsedTimer clock;
    clock.start();
    const auto slow = service.get(account, token);
    EXPECT_EQ(slow.body, normal);
    EXPECT_GE(clock.elapsed(), (normal.size() / 40) * 50 - 20);

    // A slow stream too.
    arm(service, {{QStringLiteral("kind"), QStringLiteral("slow")},
                  {QStringLiteral("chunk_bytes"), 100},
                  {QStringLiteral("interval_ms"), 20}});
    clock.restart();
    const auto slowStream =
        service.post(QStringLiteral("/api/chat"), scripted(QStringLiteral("@text slowly")), token);
    EXPECT_TRUE(EventStream::parse(slowStream.body).endsWithDone());
    EXPECT_GE(clock.elapsed(), (slowStream.body.size() / 100 - 1) * 20);

    arm(service, {{QStringLiteral("kind"), QStringLiteral("redirect")}});
    EXPECT_EQ(service.remove(QStringLiteral("/admin/fault")).status, 200);
    EXPECT_EQ(service.get(account, token).status, 200);
    EXPECT_EQ(service
                  .post(QStringLiteral("/admin/fault"),
                        QJsonObject{{QStringLiteral("kind"), QStringLiteral("meteor")}})
                  .status,
              400);
    const auto unknown = service.get(QStringLiteral("/api/nothing"));
    EXPECT_EQ(unknown.status, 404);
    EXPECT_EQ(unknown.error().value(QStringLiteral("code")).toString(), u"not_found");
}

TEST(DevServiceLifecycle, NonLoopbackAddressesNeedPublic) {
    const auto [status, error] =
        runRefused({QStringLiteral("--listen"), QStringLiteral("0.0.0.0:0")});
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(error.contains("refusing to listen on 0.0.0.0, which is not a loopback address; "
                               "pass --public"))
        << error.constData();
    EXPECT_EQ(runRefused({QStringLiteral("--listen"), QStringLiteral("example.org:80")}).first, 2);
    EXPECT_EQ(runRefused({QStringLiteral("--listen"), QStringLiteral("127.0.0.1")}).first, 2);
    EXPECT_EQ(runRefused({QStringLiteral("--balance"), QStringLiteral("-1")}).first, 2);
}

TEST(DevServiceLifecycle, SignalsStopItCleanlyAndReleaseHolds) {
    QTemporaryDir data;
    {
        DevServiceProcess service({.dataDirectory = data.path()});
        const auto token = service.signIn();
        bool streamCompleted = true;
        std::thread streaming([&] {
            auto client = service.client();
            httplib::Request request;
            request.method = "POST";
            request.path = "/api/chat";
            request.set_header("Authorization", "Bearer " + token.toStdString());
            request.body =
                R"({"model":"kestrolan/scripted","messages":[{"role":"user","content":"@text a\n@stall 30000"}]})";
            request.content_receiver = [](const char*, size_t, uint64_t, uint64_t) { return true; };
            httplib::Response response;
            httplib::Error error{};
            streamCompleted = client->send(request, response, error);
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (service.adminAccount().value(QStringLiteral("held_millionths")).toInteger() == 0 &&
               std::chrono::steady_clock::now() < deadline)
            QThread::msleep(20);

        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(service.stop(SIGTERM, std::chrono::seconds(10)), 0);
        EXPECT_LT(clock.elapsed(), 5'000);
        streaming.join();
        EXPECT_FALSE(streamCompleted); // cut, never ended as if complete
        EXPECT_TRUE(service.standardError().contains("Stopping on signal 15"));
    }
    {
        // The hold was released on the way out, not by the next start.
        DevServiceProcess restarted({.dataDirectory = data.path()});
        const auto account = restarted.adminAccount();
        EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
        EXPECT_EQ(account.value(QStringLiteral("holds"))
                      .toArray()[0]
                      .toObject()
                      .value(QStringLiteral("state")),
                  QStringLiteral("released"));
        EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());
        EXPECT_EQ(restarted.stop(SIGINT, std::chrono::seconds(10)), 0);
        EXPECT_FALSE(restarted.standardError().contains("left by the previous run"));
    }
}

TEST(DevServiceLifecycle, OneServicePerDataDirectory) {
    const DevServiceProcess service;
    const auto [status, error] =
        runRefused({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                    QStringLiteral("--data"), service.dataDirectory()});
    EXPECT_EQ(status, 1);
    const QByteArray expected = "is in use by another kestrolan-devservice (process " +
                                QByteArray::number(service.pid()) + ")";
    EXPECT_TRUE(error.contains(expected)) << error.constData();
    EXPECT_EQ(service.get(QStringLiteral("/api/catalog")).status, 200);
}
