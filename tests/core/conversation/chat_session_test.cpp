#include "account/account_model.h"
#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "memory_token_store.h"
#include "platform/settings_defaults.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "service/api_client.h"
#include "test_http_server.h"
#include "workspace/workspace.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {

const QString kModel = QStringLiteral("kestrolan/tools");

QByteArray frame(const QJsonObject& object) {
    return "data: " + QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n\n";
}

QByteArray delta(const QJsonObject& delta) {
    return frame(
        {{QStringLiteral("choices"), QJsonArray{QJsonObject{{QStringLiteral("delta"), delta}}}}});
}

QByteArray text(const QString& content) {
    return delta({{QStringLiteral("content"), content}});
}

QByteArray finish(const QString& reason) {
    return frame({{QStringLiteral("choices"),
                   QJsonArray{QJsonObject{{QStringLiteral("delta"), QJsonObject()},
                                          {QStringLiteral("finish_reason"), reason}}}}});
}

// One read_file call per path, in index order.
QByteArray readCalls(const QStringList& paths, const QString& idPrefix) {
    QJsonArray calls;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        const QString arguments =
            QString::fromUtf8(QJsonDocument(QJsonObject{{QStringLiteral("path"), paths[i]}})
                                  .toJson(QJsonDocument::Compact));
        calls.append(QJsonObject{
            {QStringLiteral("index"), int(i)},
            {QStringLiteral("id"), QString(idPrefix + QString::number(i))},
            {QStringLiteral("type"), QStringLiteral("function")},
            {QStringLiteral("function"), QJsonObject{{QStringLiteral("name"), u"read_file"_s},
                                                     {QStringLiteral("arguments"), arguments}}}});
    }
    return delta({{QStringLiteral("tool_calls"), calls}});
}

QByteArray billing(const char* charged) {
    return QByteArray("event: kestrolan.billing\ndata: {\"prompt_tokens\":10,\"completion_tokens\":"
                      "2,\"charged_usd\":\"") +
           charged + "\",\"state\":\"settled\"}\n\n";
}

const QByteArray kDone = "data: [DONE]\n\n";

QByteArray answer(const QString& content, const char* charged) {
    return text(content) + finish(QStringLiteral("stop")) + billing(charged) + kDone;
}

QByteArray toolRound(const QString& content, const QStringList& paths, const QString& idPrefix,
                     const char* charged) {
    return text(content) + readCalls(paths, idPrefix) + finish(QStringLiteral("tool_calls")) +
           billing(charged) + kDone;
}

const QByteArray kCatalog =
    R"({"models":[{"id":"kestrolan/tools","display_name":"Tools","available":true,)"
    R"("description":"d","capabilities":{"tool_calling":true,"response_format":false},)"
    R"("context_tokens":200000,"max_output_tokens":8192,"default_output_tokens":1024}]})";

const QByteArray kAccount =
    R"({"id":"6f1c1a52-8b9e-4a57-9a53-3f0d8e0b7a11","zero_retention":{"enabled":false},)"
    R"("email":"ada@example.com","balance_usd":"10.00","held_usd":"0.00",)"
    R"("available_usd":"10.00"})";

// A session against an in-process service: the catalog, the account, saving, and /api/chat
// answered from a queue of event streams.
class ChatSessionTest : public ::testing::Test {
protected:
    ChatSessionTest() {
        client.session().setTimeouts({.transfer = 10s, .total = 60s});
        server.setHandler([this](const RecordedRequest& request) { return respond(request); });
    }

    void SetUp() override {
        ASSERT_TRUE(directory.isValid());
        runTask(catalog.refresh());
        ASSERT_TRUE(catalog.select(kModel));
        ASSERT_TRUE(QDir().mkdir(folder));
        QFile notes(folder + u"/notes.txt");
        ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
        notes.write("high tide at 06:12\n");
    }

    TestResponse respond(const RecordedRequest& request) {
        if (request.target == "/api/catalog")
            return TestResponse::json(200, kCatalog);
        if (request.target == "/api/account")
            return TestResponse::json(200, kAccount);
        if (request.target.startsWith("/api/chats/")) {
            const QByteArray id = request.target.mid(QByteArray("/api/chats/").size());
            return TestResponse::json(
                200, R"({"id":")" + id + R"(","title":"t","updated_at":"2025-01-01T00:00:00Z"})");
        }
        std::lock_guard lock(mutex);
        if (request.target == "/api/chat" && !streams.empty()) {
            TestResponse response = std::move(streams.front());
            streams.pop_front();
            return response;
        }
        return TestResponse::json(500, R"({"error":{"message":"unexpected request"}})");
    }

    void enqueue(TestResponse response) {
        std::lock_guard lock(mutex);
        streams.push_back(std::move(response));
    }
    void enqueue(const QByteArray& body) { enqueue(TestResponse::eventStream(body)); }

    QList<QJsonObject> chatBodies() const {
        QList<QJsonObject> bodies;
        for (const auto& request : server.requests()) {
            if (request.target == "/api/chat")
                bodies.append(QJsonDocument::fromJson(request.body).object());
        }
        return bodies;
    }

    void grant(LocalAccessMode mode) {
        session.setAccountID(accountID);
        session.tools().selectAccess(
            mode, Workspace::open(QUrl::fromLocalFile(folder), false, ProtectedPaths()),
            configuration.origin(), accountID, session.id(), true, false);
    }

    const SavedConversation::Reply& lastReply() const {
        return session.conversation().turns.last().replies.first();
    }

    QStringList metaTexts() const {
        QStringList texts;
        for (const auto& meta : lastReply().meta)
            texts.append(meta.text);
        return texts;
    }

    // Declared before the server, whose threads use them until it is gone.
    std::mutex mutex;
    std::deque<TestResponse> streams;
    TestHttpServer server;
    Configuration configuration{server.baseURL()};
    std::shared_ptr<MemoryTokenStore> tokens =
        std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t"));
    APIClient client{configuration, tokens};
    QTemporaryDir directory;
    QString folder = directory.filePath(QStringLiteral("work"));
    SettingsDefaults defaults{directory.filePath(QStringLiteral("defaults.conf"))};
    CatalogStore catalog{client, defaults};
    ChatLoopSlots slots;
    QUuid accountID = QUuid::createUuid();
    ChatSession session{client, catalog, defaults, slots};
};

TEST_F(ChatSessionTest, ATextTurnIsBilledRefreshedAndSaved) {
    AccountModel account(client);
    session.setAccountModel(&account);
    std::optional<SavedChatSummary> saved;
    int completed = 0;
    session.setSavingAllowed([] { return true; });
    session.setOnSaved([&saved](SavedChatSummary summary) { saved = summary; });
    session.setOnCompleted([&completed]() -> QCoro::Task<void> {
        ++completed;
        co_return;
    });
    // A temperature that is not a number is left out; max tokens falls back to the model's.
    session.setSettings({.system = QStringLiteral("Be brief."),
                         .maxTokens = QStringLiteral("lots"),
                         .temperature = QStringLiteral("warm")});
    enqueue(answer(QStringLiteral("Hello there"), "0.000031"));

    runTask(session.send(QStringLiteral("Hi"), {}));

    const auto& reply = lastReply();
    EXPECT_EQ(reply.text, u"Hello there");
    EXPECT_EQ(reply.state, SavedConversation::Reply::State::complete);
    EXPECT_EQ(reply.finishReason, u"stop"_s);
    EXPECT_EQ(metaTexts(), QStringList{u"Charged $0.000031"_s});
    EXPECT_EQ(session.charges().totalMillionths, 31u);
    EXPECT_FALSE(session.errorMessage());
    EXPECT_FALSE(session.isStreaming());

    const auto bodies = chatBodies();
    ASSERT_EQ(bodies.size(), 1);
    EXPECT_EQ(bodies[0].value(u"model").toString(), kModel);
    EXPECT_EQ(bodies[0].value(u"max_tokens").toInt(), 1024);
    // No tools offered: none of the tool keys is sent.
    for (const auto key : {u"temperature", u"tools", u"tool_choice", u"parallel_tool_calls"})
        EXPECT_FALSE(bodies[0].contains(key)) << QString::fromUtf16(key).toStdString();
    const auto messages = bodies[0].value(u"messages").toArray();
    ASSERT_EQ(messages.size(), 2);
    EXPECT_EQ(messages[0][u"role"].toString(), u"system");
    EXPECT_TRUE(messages[0][u"content"].toString().contains(u"Be brief."));
    EXPECT_EQ(messages[1][u"content"].toString(), u"Hi");

    ASSERT_TRUE(saved);
    EXPECT_EQ(session.savedID(), saved->id);
    EXPECT_FALSE(session.isDirty());
    EXPECT_EQ(completed, 1);
    EXPECT_TRUE(account.account());

    // The next turn sends the first one back, with the settings as now typed, and saves under
    // the same id.
    session.setSettings({.maxTokens = QStringLiteral("300"), .temperature = QStringLiteral("0.5")});
    enqueue(answer(QStringLiteral("Again"), "0.00001"));
    runTask(session.send(QStringLiteral("Once more"), {}));
    const auto second = chatBodies().at(1);
    EXPECT_EQ(second.value(u"max_tokens").toInt(), 300);
    EXPECT_EQ(second.value(u"temperature").toDouble(), 0.5);
    const auto sent = second.value(u"messages").toArray();
    ASSERT_EQ(sent.size(), 4);
    EXPECT_EQ(sent[2][u"content"].toString(), u"Hello there");
    EXPECT_EQ(session.savedID(), saved->id);
    EXPECT_EQ(session.charges().totalMillionths, 10u);
}

TEST_F(ChatSessionTest, AToolRoundIsAnsweredThenTheChargesAreSummed) {
    grant(LocalAccessMode::readOnlyWorkspace);
    enqueue(toolRound(QStringLiteral("Let me look."), {QStringLiteral("notes.txt")},
                      QStringLiteral("call_"), "0.0001"));
    enqueue(answer(QStringLiteral("High tide is at 06:12."), "0.000025"));

    runTask(session.send(QStringLiteral("When is high tide?"), {}));

    const auto bodies = chatBodies();
    ASSERT_EQ(bodies.size(), 2);
    for (const auto& body : bodies) {
        EXPECT_EQ(body.value(u"tool_choice").toString(), u"auto");
        EXPECT_EQ(body.value(u"parallel_tool_calls"), QJsonValue(false));
        QStringList names;
        for (const auto tool : body.value(u"tools").toArray())
            names.append(tool[u"function"][u"name"].toString());
        EXPECT_EQ(names, (QStringList{u"read_file"_s, u"list_directory"_s, u"search"_s}));
    }
    // The second request carries the call and its result, which holds the file's text.
    const auto messages = bodies[1].value(u"messages").toArray();
    ASSERT_GE(messages.size(), 2);
    const auto asking = messages[messages.size() - 2].toObject();
    EXPECT_EQ(asking[u"tool_calls"][0][u"id"].toString(), u"call_0");
    EXPECT_EQ(asking[u"content"].toString(), u"Let me look.");
    const auto result = messages.last().toObject();
    EXPECT_EQ(result[u"role"].toString(), u"tool");
    EXPECT_EQ(result[u"tool_call_id"].toString(), u"call_0");
    EXPECT_TRUE(result[u"content"].toString().contains(u"high tide at 06:12"));

    const auto& reply = lastReply();
    EXPECT_EQ(reply.text, u"High tide is at 06:12.");
    ASSERT_TRUE(reply.exchanges);
    EXPECT_EQ(reply.exchanges->size(), 2);
    EXPECT_EQ(metaTexts(), (QStringList{u"Total charged $0.000125"_s,
                                        u"Each inference round is billed separately."_s}));
    EXPECT_EQ(session.chargeSummary(), u"Total charged $0.000125.");
}

TEST_F(ChatSessionTest, TheEighthRoundEndsTheTurnWithItsCallsUnrun) {
    grant(LocalAccessMode::readOnlyWorkspace);
    for (int round = 0; round < 8; ++round) {
        QByteArray body = text(QStringLiteral("Round %1.").arg(round)) +
                          readCalls({QStringLiteral("notes.txt")}, u"r%1_"_s.arg(round)) +
                          finish(QStringLiteral("tool_calls"));
        // The fourth round's billing never arrives.
        if (round != 3)
            body += billing("0.000001");
        enqueue(body + kDone);
    }
    // Served only if the session went past eight requests.
    enqueue(answer(QStringLiteral("too far"), "1"));

    runTask(session.send(QStringLiteral("Keep reading"), {}));

    EXPECT_EQ(chatBodies().size(), 8);
    const auto& reply = lastReply();
    EXPECT_EQ(reply.text, u"Round 7.");
    EXPECT_EQ(reply.state, SavedConversation::Reply::State::complete);
    ASSERT_TRUE(reply.exchanges);
    // Seven rounds ran their call; the eighth's was not run.
    EXPECT_EQ(reply.exchanges->size(), 14);
    EXPECT_EQ(session.tools().activities().size(), 7);
    ASSERT_EQ(reply.meta.size(), 3);
    EXPECT_EQ(reply.meta[0], (SavedConversation::Meta{ChatSession::roundLimitWarning(), true}));
    EXPECT_EQ(reply.meta[1].text, u"Total charged $0.000007");
    EXPECT_EQ(reply.meta[2],
              (SavedConversation::Meta{
                  u"Billing confirmation pending; see Activity before continuing."_s, true}));
}

TEST_F(ChatSessionTest, FiveCallsAreNotRunAndABrokenStreamIsNotRetried) {
    grant(LocalAccessMode::readOnlyWorkspace);
    const QStringList five(5, QStringLiteral("notes.txt"));
    enqueue(toolRound(QStringLiteral("Reading all."), five, QStringLiteral("c"), "0.00002"));

    runTask(session.send(QStringLiteral("Read it five times"), {}));

    EXPECT_EQ(chatBodies().size(), 1);
    EXPECT_TRUE(session.tools().activities().isEmpty());
    EXPECT_EQ(lastReply().text, u"Reading all.");
    EXPECT_FALSE(lastReply().exchanges);
    EXPECT_EQ(lastReply().meta.first(),
              (SavedConversation::Meta{ChatSession::tooManyCallsWarning(), true}));

    // A round cut off before its end fails the turn; it is billed, so it is not sent again.
    const QByteArray cut = text(QStringLiteral("Partial")) + billing("0.00001");
    enqueue(cut);
    enqueue(answer(QStringLiteral("retried"), "0.00001"));
    runTask(session.send(QStringLiteral("Next"), {}));
    EXPECT_EQ(chatBodies().size(), 2);
    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::error);
    EXPECT_EQ(lastReply().text, u"Partial");
    const QString incomplete =
        u"The stream ended before completion. Usage may still be awaiting confirmation."_s;
    EXPECT_EQ(session.errorMessage(), incomplete);
    ASSERT_TRUE(lastReply().error);
    EXPECT_EQ(lastReply().error->message, incomplete);
}

TEST_F(ChatSessionTest, StopDuringAStreamKeepsTheText) {
    const QByteArray first = text(QStringLiteral("Hel"));
    auto slow = TestResponse::eventStream(first + answer(QStringLiteral("lo"), "0.00001"));
    slow.pieceSize = first.size();
    slow.pieceDelay = 600s;
    enqueue(slow);

    auto turn = session.send(QStringLiteral("Hi"), {});
    runUntil(
        [this] { return !session.conversation().turns.isEmpty() && lastReply().text == u"Hel"; });
    EXPECT_TRUE(session.isStreaming());
    session.stop();
    runTask(std::move(turn));

    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::stopped);
    EXPECT_EQ(lastReply().text, u"Hel");
    EXPECT_TRUE(metaTexts().contains(ChatSession::stoppedLine()));
    EXPECT_FALSE(session.errorMessage());
    EXPECT_FALSE(session.isStreaming());
    EXPECT_FALSE(slots.isActive(session.id()));
}

TEST_F(ChatSessionTest, StopWhileToolsWaitClosesUnansweredCallsNextTurn) {
    grant(LocalAccessMode::askEveryTime);
    enqueue(toolRound(QStringLiteral("Two reads."),
                      {QStringLiteral("notes.txt"), QStringLiteral("notes.txt")},
                      QStringLiteral("ask_"), "0.00001"));

    auto turn = session.send(QStringLiteral("Read twice"), {});
    runUntil([this] { return session.tools().pendingApproval().has_value(); });
    session.stop();
    runTask(std::move(turn));

    EXPECT_EQ(session.errorMessage(), ChatSession::stoppedDuringToolsReport());
    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::stopped);
    ASSERT_TRUE(lastReply().exchanges);
    // The call that waited was answered; the other was never started.
    EXPECT_EQ(lastReply().exchanges->size(), 2);
    EXPECT_EQ(chatBodies().size(), 1);

    enqueue(answer(QStringLiteral("Understood."), "0.00001"));
    runTask(session.send(QStringLiteral("Go on"), {}));
    const auto messages = chatBodies().at(1).value(u"messages").toArray();
    QStringList answered;
    for (const auto message : messages) {
        if (message[u"role"].toString() == u"tool")
            answered.append(message[u"tool_call_id"].toString());
    }
    EXPECT_EQ(answered, (QStringList{u"ask_0"_s, u"ask_1"_s}));
    EXPECT_EQ(messages[messages.size() - 2][u"content"].toString(),
              u"{\"status\":\"cancelled\",\"message\":\"Interrupted; inspect mutations before "
              u"retrying.\"}");
    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::complete);
}

} // namespace
