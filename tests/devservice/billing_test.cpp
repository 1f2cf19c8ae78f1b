#include "chat_request.h"
#include "devservice_process.h"
#include "event_stream.h"

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QThread>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <httplib.h>
#include <thread>

using namespace kestrolan::test;

namespace {

constexpr qint64 startingBalance = 25'000'000;

qint64 ceilDiv(qint64 a, qint64 b) {
    return (a + b - 1) / b;
}

// Decimal dollars as text to millionths, the way a client sums them.
qint64 millionths(const QString& text) {
    const auto point = text.indexOf(u'.');
    const auto whole = point < 0 ? text : text.first(point);
    const auto fraction = point < 0 ? QString() : text.sliced(point + 1);
    return whole.toLongLong() * 1'000'000 + fraction.leftJustified(6, u'0').toLongLong();
}

qint64 lastLedgerAmount(const QJsonObject& account) {
    const auto ledger = account.value(QStringLiteral("ledger")).toArray();
    return ledger.last().toObject().value(QStringLiteral("amount_millionths")).toInteger();
}

void setBalance(const DevServiceProcess& service, const QString& usd) {
    ASSERT_EQ(service
                  .post(QStringLiteral("/admin/balance"),
                        QJsonObject{{QStringLiteral("balance_usd"), usd}})
                  .status,
              200);
}

} // namespace

TEST(DevServiceBilling, ChargesAreExactToTheMillionthAndTheLedgerBalances) {
    const DevServiceProcess service;
    const auto token = service.signIn();

    // Scripted prices: $1.25 in, $10.00 out per million tokens.
    // 1,000,001 × 1.25 = 1,250,001.25 → 1,250,002; 33,333 × 10 = 333,330.
    const auto reply =
        service.post(QStringLiteral("/api/chat"),
                     scripted(QStringLiteral("@usage 1000001 33333\n@text Hi")), token);
    ASSERT_EQ(reply.status, 200) << reply.body.constData();
    EXPECT_EQ(reply.header("Content-Type"), "text/event-stream");
    const auto stream = EventStream::parse(reply.body);
    ASSERT_EQ(stream.billingEvents().size(), 1);
    const auto billing = stream.billingEvents().first();
    EXPECT_EQ(billing.value(QStringLiteral("state")).toString(), u"settled");
    EXPECT_EQ(billing.value(QStringLiteral("charged_usd")).toString(), u"1.583332");
    EXPECT_EQ(billing.value(QStringLiteral("prompt_tokens")).toInteger(), 1'000'001);
    EXPECT_EQ(billing.value(QStringLiteral("completion_tokens")).toInteger(), 33'333);
    ASSERT_EQ(stream.usages().size(), 1);
    EXPECT_EQ(stream.usages().first().value(QStringLiteral("total_tokens")).toInteger(), 1'033'334);

    auto account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(),
              startingBalance - 1'583'332);
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
    EXPECT_EQ(lastLedgerAmount(account), -1'583'332);
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());

    // Echo counts a token per four bytes: the request body for the prompt, the reply for the
    // completion. Prices $0.15 and $0.60.
    const auto text = QStringLiteral("Grüße from the echo model, word by word.");
    const auto body = QJsonDocument(chatRequest(QStringLiteral("kestrolan/echo"), text))
                          .toJson(QJsonDocument::Compact);
    const auto echoed = service.post(QStringLiteral("/api/chat"), body, token);
    ASSERT_EQ(echoed.status, 200);
    const auto echo = EventStream::parse(echoed.body);
    EXPECT_EQ(echo.content(), text);
    EXPECT_EQ(echo.contentPieces().size(), 8);
    const auto prompt = ceilDiv(body.size(), 4);
    const auto completion = ceilDiv(text.toUtf8().size(), 4);
    const auto charge =
        ceilDiv(prompt * 150'000, 1'000'000) + ceilDiv(completion * 600'000, 1'000'000);
    const auto echoBilling = echo.billingEvents().value(0);
    EXPECT_EQ(echoBilling.value(QStringLiteral("prompt_tokens")).toInteger(), prompt);
    EXPECT_EQ(echoBilling.value(QStringLiteral("completion_tokens")).toInteger(), completion);
    EXPECT_EQ(millionths(echoBilling.value(QStringLiteral("charged_usd")).toString()), charge);

    account = service.adminAccount();
    const auto balance = startingBalance - 1'583'332 - charge;
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), balance);
    EXPECT_EQ(account.value(QStringLiteral("ledger_total_millionths")).toInteger(), balance);
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());

    // The client's view: decimal text, nothing held.
    const auto client = service.get(QStringLiteral("/api/account"), token).json();
    EXPECT_EQ(millionths(client.value(QStringLiteral("balance_usd")).toString()), balance);
    EXPECT_EQ(client.value(QStringLiteral("held_usd")).toString(), u"0.00");
    EXPECT_EQ(client.value(QStringLiteral("available_usd")),
              client.value(QStringLiteral("balance_usd")));
}

TEST(DevServiceBilling, CatalogFilePricesRoundUpPerMillionth) {
    QTemporaryDir directory;
    const auto path = directory.filePath(QStringLiteral("catalog.json"));
    const auto write = [&path](const QByteArray& contents) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(contents);
    };
    write(R"({"models": [{"id": "kestrolan/scripted", "display_name": "Scripted",
        "description": "", "capabilities": {"tool_calling": true},
        "max_output_tokens": 100, "default_output_tokens": 1,
        "pricing": {"input_usd_per_mtok": "0.000001", "output_usd_per_mtok": "999.999999"}}]})");

    const DevServiceProcess service({.arguments = {QStringLiteral("--catalog"), path}});
    const auto catalog = service.get(QStringLiteral("/api/catalog"));
    ASSERT_EQ(catalog.status, 200);
    const auto models = catalog.json().value(QStringLiteral("models")).toArray();
    ASSERT_EQ(models.size(), 1);
    const auto pricing = models[0].toObject().value(QStringLiteral("pricing")).toObject();
    EXPECT_EQ(pricing.value(QStringLiteral("output_usd_per_mtok")).toString(), u"999.999999");
    EXPECT_FALSE(models[0].toObject().contains(QStringLiteral("context_tokens")));

    // One token at a millionth of a dollar per million tokens still costs a whole millionth;
    // one at $999.999999 per million costs 999.999999 millionths, rounded up to 1,000.
    const auto token = service.signIn();
    const auto reply =
        service.post(QStringLiteral("/api/chat"), scripted(QStringLiteral("@usage 1 1")), token);
    const auto billing = EventStream::parse(reply.body).billingEvents().value(0);
    EXPECT_EQ(billing.value(QStringLiteral("charged_usd")).toString(), u"0.001001");
    EXPECT_EQ(service.adminAccount().value(QStringLiteral("balance_millionths")).toInteger(),
              startingBalance - 1'001);

    // A price with seven decimals stops the service from starting, naming the field.
    write(R"({"models": [{"id": "kestrolan/echo", "display_name": "Echo", "max_output_tokens": 5,
        "pricing": {"input_usd_per_mtok": "0.0000001"}}]})");
    const auto [status, error] =
        runRefused({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"),
                    QStringLiteral("--data"), directory.path(), QStringLiteral("--catalog"), path});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(error.contains("models[0].pricing.input_usd_per_mtok")) << error.constData();
}

TEST(DevServiceBilling, HoldCoversTheWorstCaseExactly) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    // Held: 4 prompt tokens (5) plus the allowance of 1 output token (10) = 15 millionths.
    const auto request =
        scripted(QStringLiteral("@usage 4 0"), QJsonObject{{QStringLiteral("max_tokens"), 1}});

    setBalance(service, QStringLiteral("0.000014"));
    const auto refused = service.post(QStringLiteral("/api/chat"), request, token);
    EXPECT_EQ(refused.status, 402);
    EXPECT_EQ(refused.error().value(QStringLiteral("code")).toString(), u"insufficient_credit");
    auto account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("holds")).toArray().size(), 0);
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), 14);

    setBalance(service, QStringLiteral("0.000015"));
    const auto accepted = service.post(QStringLiteral("/api/chat"), request, token);
    ASSERT_EQ(accepted.status, 200);
    EXPECT_EQ(EventStream::parse(accepted.body)
                  .billingEvents()
                  .value(0)
                  .value(QStringLiteral("charged_usd")),
              QStringLiteral("0.000005"));
    account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), 10);
    const auto hold = account.value(QStringLiteral("holds")).toArray().last().toObject();
    EXPECT_EQ(hold.value(QStringLiteral("amount_millionths")).toInteger(), 15);
    EXPECT_EQ(hold.value(QStringLiteral("state")).toString(), u"settled");
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());

    // The balance cannot be set below what is held; an unknown account is 404.
    EXPECT_EQ(service
                  .post(QStringLiteral("/admin/balance"),
                        QJsonObject{{QStringLiteral("balance_usd"), QStringLiteral("1.0000001")}})
                  .status,
              400);
    EXPECT_EQ(service
                  .post(QStringLiteral("/admin/balance"),
                        QJsonObject{{QStringLiteral("balance_usd"), QStringLiteral("1")},
                                    {QStringLiteral("email"), QStringLiteral("x@y")}})
                  .status,
              404);
}

TEST(DevServiceBilling, HoldIsReleasedWhenTheClientDrops) {
    const DevServiceProcess service;
    const auto token = service.signIn();

    auto client = service.client();
    httplib::Request request;
    request.method = "POST";
    request.path = "/api/chat";
    request.set_header("Authorization", "Bearer " + token.toStdString());
    request.body =
        QJsonDocument(
            scripted(QStringLiteral("@delay 100\n@text one two three four five six seven eight")))
            .toJson(QJsonDocument::Compact)
            .toStdString();
    qint64 heldWhileStreaming = -1;
    request.content_receiver = [&](const char*, size_t, uint64_t, uint64_t) {
        heldWhileStreaming =
            service.adminAccount().value(QStringLiteral("held_millionths")).toInteger();
        return false; // hang up after the first bytes
    };
    httplib::Response response;
    httplib::Error error{};
    EXPECT_FALSE(client->send(request, response, error));
    client.reset();
    EXPECT_GT(heldWhileStreaming, 0);

    const auto account = service.waitForHeld(0, std::chrono::seconds(5));
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), startingBalance);
    const auto holds = account.value(QStringLiteral("holds")).toArray();
    ASSERT_EQ(holds.size(), 1);
    EXPECT_EQ(holds[0].toObject().value(QStringLiteral("state")).toString(), u"released");
    EXPECT_EQ(account.value(QStringLiteral("ledger")).toArray().size(), 1); // the credit alone
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());
}

TEST(DevServiceBilling, WebSearchIsBilled) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto reply = service.post(
        QStringLiteral("/api/web/search"),
        QJsonObject{{QStringLiteral("query"), QStringLiteral("SQLite WAL crash")}}, token);
    ASSERT_EQ(reply.status, 200) << reply.body.constData();
    const auto results = reply.json().value(QStringLiteral("results")).toArray();
    ASSERT_FALSE(results.isEmpty());
    EXPECT_EQ(results[0].toObject().value(QStringLiteral("title")).toString(),
              u"SQLite write-ahead logging");
    for (const auto* key : {"title", "url", "snippet"})
        EXPECT_TRUE(results[0].toObject().value(QLatin1StringView(key)).isString());
    const auto billing = reply.json().value(QStringLiteral("billing")).toObject();
    EXPECT_EQ(billing.value(QStringLiteral("state")).toString(), u"settled");
    EXPECT_EQ(billing.value(QStringLiteral("charged_usd")).toString(), u"0.005");
    EXPECT_EQ(service.adminAccount().value(QStringLiteral("balance_millionths")).toInteger(),
              startingBalance - 5'000);

    EXPECT_EQ(service
                  .post(QStringLiteral("/api/web/search"),
                        QJsonObject{{QStringLiteral("query"), QStringLiteral(" \n ")}}, token)
                  .status,
              400);
    setBalance(service, QStringLiteral("0.004999"));
    const auto poor =
        service.post(QStringLiteral("/api/web/search"),
                     QJsonObject{{QStringLiteral("query"), QStringLiteral("cron")}}, token);
    EXPECT_EQ(poor.status, 402);
    EXPECT_EQ(service.adminAccount().value(QStringLiteral("balance_millionths")).toInteger(),
              4'999);
}

TEST(DevServiceBilling, HoldsOfAKilledRunAreReleasedOnTheNextStart) {
    QTemporaryDir data;
    {
        DevServiceProcess service({.dataDirectory = data.path()});
        const auto token = service.signIn();
        std::thread streaming([&] {
            service.post(QStringLiteral("/api/chat"), scripted(QStringLiteral("@stall 20000")),
                         token);
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (service.adminAccount().value(QStringLiteral("held_millionths")).toInteger() == 0 &&
               std::chrono::steady_clock::now() < deadline)
            QThread::msleep(20);
        EXPECT_GT(service.adminAccount().value(QStringLiteral("held_millionths")).toInteger(), 0);
        service.kill(); // SIGKILL: no chance to release anything
        streaming.join();
    }
    DevServiceProcess restarted({.dataDirectory = data.path()});
    const auto account = restarted.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), startingBalance);
    EXPECT_EQ(account.value(QStringLiteral("holds"))
                  .toArray()[0]
                  .toObject()
                  .value(QStringLiteral("state")),
              QStringLiteral("released"));
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());
    EXPECT_EQ(restarted.stop(SIGTERM, std::chrono::seconds(10)), 0);
    EXPECT_TRUE(restarted.standardError().contains("Released 1 holds left by the previous run"));
}
