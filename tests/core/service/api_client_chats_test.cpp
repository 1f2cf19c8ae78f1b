#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
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

namespace {

const QUuid chatID = QUuid::fromString(u"6f9619ff-8b86-d011-b42d-00c04fc964ff");

struct Fixture {
    Fixture()
        : configuration(server.baseURL())
        , tokens(
              std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("token-1")))
        , client(configuration, tokens) {}

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
};

SavedConversation conversation() {
    SavedConversation c;
    c.version = 2;
    c.title = QStringLiteral("Plans");
    c.slots = {QStringLiteral("kestrolan/echo")};
    SavedConversation::Turn turn;
    turn.user = QStringLiteral("Hello");
    SavedConversation::Reply reply;
    reply.model = QStringLiteral("kestrolan/echo");
    reply.text = QStringLiteral("Hi.");
    turn.replies = {reply};
    c.turns = {turn};
    return c;
}

QByteArray summaryJson(const char* updatedAt = "2024-05-01T10:00:00.123456Z") {
    return QByteArray(
               R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","title":"Plans","updated_at":")") +
           updatedAt + "\"}";
}

template <typename E, typename T>
QString failure(QCoro::Task<T> task) {
    try {
        runTask(std::move(task));
    } catch (const E& error) {
        return error.description();
    }
    return QStringLiteral("<no error>");
}

} // namespace

TEST(APIClientChats, ListsLoadsAndDeletesWithTheBearerToken) {
    Fixture f;
    f.server.enqueue(TestResponse::json(200, "[" + summaryJson() + "]"));
    f.server.enqueue(TestResponse::json(200, conversation().encoded()));
    TestResponse deleted;
    deleted.status = 204;
    f.server.enqueue(deleted);

    const auto list = runTask(f.client.chats());
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0].id, chatID);
    EXPECT_EQ(list[0].title, u"Plans");
    EXPECT_EQ(list[0].updatedAt.toMSecsSinceEpoch() % 1000, 123);

    const auto loaded = runTask(f.client.chat(chatID));
    EXPECT_EQ(loaded.toJson(), conversation().toJson());
    runTask(f.client.deleteChat(chatID));

    const auto requests = f.server.requests();
    ASSERT_EQ(requests.size(), 3);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/api/chats");
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[1].target, "/api/chats/6f9619ff-8b86-d011-b42d-00c04fc964ff");
    EXPECT_EQ(requests[2].method, "DELETE");
    EXPECT_EQ(requests[2].target, "/api/chats/6f9619ff-8b86-d011-b42d-00c04fc964ff");
    for (const auto& request : requests)
        EXPECT_EQ(request.header("authorization"), "Bearer token-1");
}

TEST(APIClientChats, RefusesALoadedChatThatFailsValidation) {
    Fixture f;
    auto invalid = conversation();
    invalid.version = 1;
    invalid.turns[0].attachments = QList{WireAttachment{QStringLiteral("a"), QStringLiteral("b")}};
    f.server.enqueue(TestResponse::json(200, invalid.encoded()));
    f.server.enqueue(TestResponse::json(200, R"({"title":"no turns"})"));
    f.server.enqueue(TestResponse::json(200, R"([{"id":"x","title":"t","updated_at":"now"}])"));
    f.server.enqueue(
        TestResponse::json(404, R"({"error":{"message":"Chat not found.","code":"not_found"}})"));

    EXPECT_EQ(failure<ClientError>(f.client.chat(chatID)),
              u"Kestrolan returned an unreadable response.");
    EXPECT_EQ(failure<ClientError>(f.client.chat(chatID)),
              u"Kestrolan returned an unreadable response.");
    EXPECT_EQ(failure<ClientError>(f.client.chats()),
              u"Kestrolan returned an unreadable response.");
    EXPECT_EQ(failure<APIError>(f.client.deleteChat(chatID)), u"Chat not found.");
}

TEST(APIClientChats, SavesTheDocumentAndReadsBackItsSummary) {
    Fixture f;
    f.server.enqueue(TestResponse::json(200, summaryJson("2024-05-01T12:00:00+02:00")));
    const auto summary = runTask(f.client.saveChat(chatID, conversation(), true));
    EXPECT_EQ(summary.id, chatID);
    EXPECT_EQ(summary.updatedAt, QDateTime(QDate(2024, 5, 1), QTime(10, 0), QTimeZone::utc()));

    const auto request = f.server.requests().at(0);
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/api/chats/6f9619ff-8b86-d011-b42d-00c04fc964ff");
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_EQ(QJsonDocument::fromJson(request.body).object(), conversation().toJson());
    EXPECT_TRUE(request.body.contains("\"maxTokens\""));
}

TEST(APIClientChats, RefusesToSaveWithoutSendingAnything) {
    Fixture f;
    EXPECT_EQ(failure<ClientError>(f.client.saveChat(chatID, conversation(), false)),
              u"Saving is off while Zero Data Retention is on.");

    auto invalid = conversation();
    invalid.turns[0].user = QStringLiteral("   ");
    EXPECT_EQ(failure<ClientError>(f.client.saveChat(chatID, invalid, true)),
              u"Kestrolan returned an unreadable response.");

    // One byte over the limit is refused with the size error before anything is sent.
    auto big = conversation();
    big.title = QString();
    big.title = QString(APIClient::maxSavedChatBytes - big.encoded().size() + 1, u't');
    ASSERT_EQ(big.encoded().size(), APIClient::maxSavedChatBytes + 1);
    EXPECT_EQ(failure<ClientError>(f.client.saveChat(chatID, big, true)),
              u"The response was too large.");
    EXPECT_EQ(f.server.requestCount(), 0);

    // Exactly the limit is sent whole.
    big.title->chop(1);
    f.server.enqueue(TestResponse::json(200, summaryJson()));
    runTask(f.client.saveChat(chatID, big, true));
    ASSERT_EQ(f.server.requestCount(), 1);
    EXPECT_EQ(f.server.requests().at(0).body.size(), APIClient::maxSavedChatBytes);
}
