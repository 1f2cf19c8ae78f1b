#include "conversation/chat_request.h"
#include "memory_token_store.h"
#include "run_task.h"
#include "service/api_client.h"
#include "service/api_error.h"
#include "service/client_error.h"
#include "test_http_server.h"

#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace std::chrono_literals;

namespace {

const QByteArray kReply =
    "data: {\"object\":\"chat.completion.chunk\",\"choices\":[{\"delta\":{\"role\":\"assistant\","
    "\"content\":\"Hel\"}}]}\n\n"
    "data: "
    "{\"object\":\"chat.completion.chunk\",\"choices\":[{\"delta\":{\"content\":\"lo\"}}]}\n\n"
    "data: {\"object\":\"chat.completion.chunk\",\"choices\":[{\"delta\":{},"
    "\"finish_reason\":\"stop\"}]}\n\n"
    "data: {\"object\":\"chat.completion.chunk\",\"choices\":[],\"usage\":{\"prompt_tokens\":9,"
    "\"completion_tokens\":2,\"total_tokens\":11}}\n\n"
    "event: kestrolan.billing\ndata: {\"prompt_tokens\":9,\"completion_tokens\":2,"
    "\"charged_usd\":\"0.000031\",\"state\":\"settled\"}\n\n"
    "data: [DONE]\n\n";

struct StreamFixture {
    StreamFixture()
        : configuration(server.baseURL())
        , tokens(std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t")))
        , client(configuration, tokens) {
        // Qt 6.4 now and then never reports a connection dropped mid-body; only the transfer
        // time-out ends such a reply, and the outcome is the same incomplete stream.
        client.session().setTimeouts({.transfer = 3s, .total = 60s});
    }

    // Runs one stream; returns the error text, empty on success. Events land in `events`.
    QString run(std::stop_token stop = {}) {
        ChatRequest request{.model = QStringLiteral("kestrolan/echo"),
                            .messages = {ChatMessage{.content = QStringLiteral("Hello")}}};
        try {
            runTask(client.stream(
                request, [this](ChatStreamEvent event) { events.append(std::move(event)); }, stop));
        } catch (const Error& error) {
            return error.description();
        }
        return {};
    }

    QString text() const {
        QString joined;
        for (const auto& event : events) {
            if (const auto* piece = std::get_if<ChatStreamEvent::Text>(&event.value))
                joined += piece->content;
        }
        return joined;
    }

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
    QList<ChatStreamEvent> events;
};

} // namespace

TEST(APIClientStream, DeliversEventsAsTheyArrive) {
    StreamFixture f;
    auto response = TestResponse::eventStream(kReply);
    response.pieceSize = 7; // frames split at arbitrary points
    response.pieceDelay = 1ms;
    f.server.enqueue(response);

    EXPECT_EQ(f.run(), QString());
    EXPECT_EQ(f.text(), u"Hello");
    ASSERT_EQ(f.events.size(), 6);
    EXPECT_EQ(f.events[2], ChatStreamEvent::finish(QStringLiteral("stop")));
    EXPECT_EQ(f.events[3].kind(), ChatStreamEvent::Kind::usage);
    ASSERT_EQ(f.events[4].kind(), ChatStreamEvent::Kind::billing);
    EXPECT_EQ(std::get<BillingUsage>(f.events[4].value).summary(), u"Charged $0.000031");
    EXPECT_EQ(f.events[5], ChatStreamEvent::done());

    const auto request = f.server.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/api/chat");
    EXPECT_EQ(request.header("accept"), "text/event-stream");
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_EQ(request.header("authorization"), "Bearer t");
    const auto body = QJsonDocument::fromJson(request.body).object();
    EXPECT_EQ(body.value(u"model").toString(), u"kestrolan/echo");
    EXPECT_FALSE(body.contains(u"stream"));
}

TEST(APIClientStream, AnEarlyEndKeepsWhatWasShown) {
    // The connection drops after the first two text chunks.
    StreamFixture f;
    auto dropped = TestResponse::eventStream(kReply);
    dropped.dropAfter = kReply.indexOf("data: {\"object\":\"chat.completion.chunk\",\"choices\":[{"
                                       "\"delta\":{},");
    f.server.enqueue(dropped);
    EXPECT_EQ(f.run(), u"The stream ended before completion. Usage may still be awaiting "
                       u"confirmation.");
    EXPECT_EQ(f.text(), u"Hello");

    // A body that ends cleanly but without "[DONE]" is just as incomplete.
    StreamFixture g;
    g.server.enqueue(TestResponse::eventStream(kReply.left(kReply.indexOf("data: [DONE]"))));
    EXPECT_EQ(g.run(), u"The stream ended before completion. Usage may still be awaiting "
                       u"confirmation.");
    EXPECT_EQ(g.events.last().kind(), ChatStreamEvent::Kind::billing);
}

TEST(APIClientStream, EndsAtTheFirstDoneWithoutReadingOn) {
    StreamFixture f;
    // The client waits far longer than the test may run for the rest of the body: only a stream
    // that ends at "[DONE]" returns.
    f.client.session().setTimeouts({.transfer = 600s, .total = 600s});
    const QByteArray first = kReply + "data: [DONE]\n\n" +
                             "data: {\"choices\":[{\"delta\":{\"content\":\"late\"}}]}\n\n" +
                             "event: kestrolan.billing\ndata: {\"state\":\"released\"}\n\n" +
                             "data: \xff\xfe\n\n";
    auto response = TestResponse::eventStream(first + "data: [DONE]\n\n");
    response.pieceSize = first.size();
    response.pieceDelay = 600s;
    f.server.enqueue(response);

    EXPECT_EQ(f.run(), QString());
    EXPECT_EQ(f.text(), u"Hello");
    ASSERT_EQ(f.events.size(), 6);
    EXPECT_EQ(std::get<BillingUsage>(f.events[4].value).summary(), u"Charged $0.000031");
    EXPECT_EQ(f.events[5], ChatStreamEvent::done());
}

TEST(APIClientStream, RefusesAnswersThatAreNotEventStreams) {
    StreamFixture f;
    f.server.enqueue(TestResponse::json(200, R"({"choices":[]})"));
    EXPECT_EQ(f.run(), u"Kestrolan returned an unreadable response.");

    // Parameters and case do not matter; the media type does.
    auto mixedCase = TestResponse::eventStream("data: [DONE]\n\n");
    mixedCase.headers = {{"Content-Type", "Text/Event-Stream; charset=utf-8"}};
    f.server.enqueue(mixedCase);
    EXPECT_EQ(f.run(), QString());
}

TEST(APIClientStream, ErrorStatusesReadABoundedBody) {
    StreamFixture f;
    f.server.enqueue(TestResponse::json(
        403, R"({"error":{"message":"This model is not available.","code":"model_not_allowed"}})"));
    EXPECT_EQ(f.run(), u"This model is not available.");

    // A huge error body is cut at 1 MiB rather than read whole.
    auto huge = TestResponse::json(500, QByteArray(8 * 1024 * 1024, ' '));
    huge.pieceSize = 64 * 1024;
    f.server.enqueue(huge);
    EXPECT_EQ(f.run(), u"Kestrolan could not complete the request (HTTP 500).");

    // A 401 on the stream signs out like any other request.
    int unauthorized = 0;
    f.client.setOnUnauthorized([&] { ++unauthorized; });
    f.server.enqueue(TestResponse::json(401, R"({"error":{"message":"Sign in again."}})"));
    EXPECT_EQ(f.run(), u"Sign in again.");
    EXPECT_EQ(unauthorized, 1);
    EXPECT_FALSE(f.tokens->token().has_value());
}

TEST(APIClientStream, ErrorEventsCarryTheServiceMessage) {
    StreamFixture f;
    f.server.enqueue(TestResponse::eventStream(
        "data: {\"choices\":[{\"delta\":{\"content\":\"Par\"}}]}\n\n"
        "event: error\ndata: {\"error\":{\"message\":\"The model failed.\"}}\n\n"));
    EXPECT_EQ(f.run(), u"The model failed.");
    EXPECT_EQ(f.text(), u"Par");
}

TEST(APIClientStream, StopTokenEndsTheStream) {
    StreamFixture f;
    auto slow = TestResponse::eventStream(kReply);
    slow.pieceSize = 40;
    slow.pieceDelay = 200ms;
    f.server.enqueue(slow);

    std::stop_source stop;
    ChatRequest request{.model = QStringLiteral("kestrolan/echo")};
    bool cancelled = false;
    auto task = f.client.stream(
        request,
        [&](ChatStreamEvent event) {
            f.events.append(event);
            stop.request_stop(); // the user pressed Stop after the first piece
        },
        stop.get_token());
    try {
        runTask(std::move(task), 5s);
    } catch (const CancellationError&) {
        cancelled = true;
    }
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(f.events.size(), 1);
}
