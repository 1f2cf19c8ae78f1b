#include "conversation/saved_conversation.h"
#include "memory_token_store.h"
#include "service/configuration.h"
#include "test_http_server.h"
#include "tool_executor_fixture.h"
#include "tools/harness_error.h"

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

using State = ToolActivity::State;

namespace {

SavedConversation savedWithCalls(const QList<ToolCall>& calls) {
    ChatMessage assistant;
    assistant.role = ChatMessage::Role::assistant;
    assistant.toolCalls = calls;
    SavedConversation::Reply reply;
    reply.exchanges = QList<ChatMessage>{assistant};
    SavedConversation::Turn turn;
    turn.user = u"look it up"_s;
    turn.replies = {reply};
    SavedConversation saved;
    saved.version = 2;
    saved.slots = {u"kestrolan/echo"_s};
    saved.turns = {turn};
    return saved;
}

} // namespace

TEST_F(ToolExecutorTest, AWebFetchAsksOnlyOnceTheChatHasReadLocalFiles) {
    TestHttpServer server([](const RecordedRequest&) {
        TestResponse page;
        page.addHeader("Content-Type", "text/html; charset=utf-8");
        page.body = "<html><head><title>Harbour</title></head>"
                    "<body><p>High water at noon.</p></body></html>";
        return page;
    });
    const QString url = server.baseURL() + u"/harbour";
    const auto fetch = [&] { return call(u"web_fetch"_s, {{u"url"_s, url}}); };

    // Nothing read yet, and no folder needed: fetched without a question.
    auto unasked = execute(fetch());
    EXPECT_FALSE(m_executor.pendingApproval());
    EXPECT_TRUE(runTask(std::move(unasked)).content.contains(u"High water at noon."));

    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    runTask(execute(readNotes()));
    auto asked = execute(fetch());
    ASSERT_TRUE(m_executor.pendingApproval());
    EXPECT_FALSE(m_executor.pendingApproval()->rootIdentity);
    EXPECT_EQ(m_executor.pendingApproval()->disclosure(),
              u"This chat has used local read tools. Fetching this exact URL may disclose local "
              u"data in the URL to the website. Page text will be sent to inference. Allow once "
              u"or Deny.");
    m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
    EXPECT_TRUE(runTask(std::move(asked)).content.contains(u"High water at noon."));
    EXPECT_EQ(server.requestCount(), 2);

    // Access changed while asking: the answer no longer counts.
    auto changed = execute(fetch());
    const QUuid question = m_executor.pendingApproval()->id;
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    m_executor.resolveApproval(true, question);
    EXPECT_EQ(failure(runTask(std::move(changed))).first, u"denied");
    EXPECT_EQ(server.requestCount(), 2);

    // A cleared chat asks no more; a reopened chat that had read files asks again.
    m_executor.clear();
    m_executor.restoreLocalReadHistory(
        savedWithCalls({call(u"web_search"_s, {{u"query"_s, u"tides"_s}}), fetch(),
                        call(u"read_file"_s, {{u"path"_s, u"x"_s}, {u"mode"_s, u"r"_s}})}));
    EXPECT_FALSE(m_executor.hasExecutedLocalRead());
    auto afterClear = execute(fetch());
    EXPECT_FALSE(m_executor.pendingApproval());
    runTask(std::move(afterClear));

    m_executor.restoreLocalReadHistory(
        savedWithCalls({fetch(), call(u"list_directory"_s, {{u"path"_s, u""_s}})}));
    EXPECT_TRUE(m_executor.hasExecutedLocalRead());
    auto reopened = execute(fetch());
    ASSERT_TRUE(m_executor.pendingApproval());
    m_executor.resolveApproval(false, m_executor.pendingApproval()->id);
    EXPECT_EQ(failure(runTask(std::move(reopened))),
              std::pair(u"denied"_s, u"Local access was denied or revoked."_s));
    EXPECT_EQ(m_executor.activities().last().state, State::denied);
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(ToolExecutorTest, AWebSearchHandsItsChargeToTheSession) {
    TestHttpServer server([](const RecordedRequest& request) {
        if (request.target != "/api/web/search")
            return TestResponse::json(404, R"({"message":"no"})");
        return TestResponse::json(
            200,
            R"({"query":"tides","results":[{"title":"Tide tables","url":"https://example.com/t",)"
            R"("snippet":"High water"}],"billing":{"state":"settled","charged_usd":"0.0050",)"
            R"("prompt_tokens":0,"completion_tokens":0}})");
    });
    const Configuration configuration(server.baseURL());
    APIClient client(configuration,
                     std::make_shared<MemoryTokenStore>(configuration.origin(), u"token-1"_s));
    m_webClient = &client;
    QList<std::optional<BillingUsage>> charges;
    m_onWebBilling = [&](std::optional<BillingUsage> billing) { charges.append(billing); };

    // Searches never ask, also after local reads.
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    runTask(execute(readNotes()));
    const ToolCall search = call(u"web_search"_s, {{u"query"_s, u"tides"_s}});
    auto searching = execute(search);
    EXPECT_FALSE(m_executor.pendingApproval());
    const ChatMessage answer = runTask(std::move(searching));
    EXPECT_TRUE(answer.content.contains(u"Tide tables")) << answer.content.toStdString();
    EXPECT_EQ(answer.toolCallID, search.id);
    ASSERT_EQ(charges.size(), 1);
    ASSERT_TRUE(charges[0]);
    EXPECT_EQ(charges[0]->chargedUSD, u"0.0050");
    EXPECT_EQ(charges[0]->state, BillingUsage::State::settled);
    EXPECT_EQ(m_executor.activities().last().state, State::completed);

    // The session may refuse the charge; the model is told why.
    m_onWebBilling = [](std::optional<BillingUsage>) {
        throw HarnessError(HarnessError::Kind::billingPending);
    };
    EXPECT_EQ(failure(runTask(execute(search))),
              std::pair(u"failed"_s, HarnessError::describe(HarnessError::Kind::billingPending)));
    EXPECT_EQ(server.requestCount(), 2);

    // Without the service client nothing is searched.
    m_webClient = nullptr;
    EXPECT_EQ(failure(runTask(execute(search))).first, u"failed");
    EXPECT_EQ(server.requestCount(), 2);
}
