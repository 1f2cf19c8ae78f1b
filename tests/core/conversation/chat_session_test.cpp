#include "chat_session_fixture.h"
#include "tools/web_tool_settings.h"

using namespace kestrolan;
using namespace kestrolan::test;
using namespace kestrolan::test::chat;

namespace {

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

    // A new chat stays on this computer until the user saves it.
    EXPECT_FALSE(saved);
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 0);
    EXPECT_TRUE(session.isDirty());
    EXPECT_EQ(completed, 1);
    EXPECT_TRUE(account.account());
    runTask(session.save());
    ASSERT_TRUE(saved);
    EXPECT_EQ(session.savedID(), saved->id);
    EXPECT_FALSE(session.isDirty());

    // The next turn sends the first one back, with the settings as now typed, and, the chat
    // being saved now, saves it again under the same id.
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
    EXPECT_EQ(
        requestCount("PUT", "/api/chats/" + saved->id.toString(QUuid::WithoutBraces).toLatin1()),
        2);
    EXPECT_FALSE(session.isDirty());
    EXPECT_EQ(session.charges().totalMillionths, 10u);
    // The balance was fetched again, forced, after each turn.
    EXPECT_EQ(requestCount("GET", "/api/account"), 2);
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

TEST_F(ChatSessionTest, AWebSearchChargeCountsInTheTurnAndItsReply) {
    WebToolSettings{.searchEnabled = true}.store(defaults);
    enqueue(text(QStringLiteral("Searching.")) +
            calls(QStringLiteral("web_search"), {QJsonObject{{u"query"_s, u"tides"_s}}}, u"w"_s) +
            finish(QStringLiteral("tool_calls")) + billing("0.0001") + kDone);
    enqueue(answer(QStringLiteral("High water at six."), "0.00003"));

    runTask(session.send(QStringLiteral("Tides?"), {}));

    EXPECT_EQ(requestCount("POST", "/api/web/search"), 1);
    EXPECT_EQ(lastReply().text, u"High water at six.");
    // Two inference rounds and the search: 0.0001 + 0.005 + 0.00003.
    EXPECT_EQ(metaTexts(), (QStringList{u"Total charged $0.00513"_s,
                                        u"Each inference round is billed separately."_s}));
    EXPECT_EQ(session.charges().totalMillionths, 5'130u);
    EXPECT_EQ(session.chargeSummary(), u"Total charged $0.00513.");
}

TEST_F(ChatSessionTest, ARequestOverTheContextBudgetIsNeverSent) {
    // An output allowance as large as the model's whole context leaves no room for any input.
    session.setSettings({.maxTokens = QStringLiteral("200000")});
    runTask(session.send(QStringLiteral("Hi"), {}));

    const QString tooLarge = u"Context is too large. Remove files or start a new chat."_s;
    EXPECT_EQ(chatBodies().size(), 0);
    EXPECT_EQ(session.errorMessage(), tooLarge);
    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::error);
    ASSERT_TRUE(lastReply().error);
    EXPECT_EQ(lastReply().error->message, tooLarge);
    // Nothing was sent, so nothing is charged.
    EXPECT_TRUE(lastReply().meta.isEmpty());

    // With room left for the input, the same message goes out.
    session.setSettings({.maxTokens = QStringLiteral("190000")});
    enqueue(answer(QStringLiteral("Hello"), "0.00001"));
    runTask(session.send(QStringLiteral("Hi"), {}));
    ASSERT_EQ(chatBodies().size(), 1);
    EXPECT_EQ(chatBodies()[0].value(u"max_tokens").toInt(), 190000);
    EXPECT_EQ(lastReply().state, SavedConversation::Reply::State::complete);
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

TEST_F(ChatSessionTest, ToolRoundsEndBeforeTheReplyTranscriptOverflows) {
    grant(LocalAccessMode::readOnlyWorkspace);
    const QStringList four(4, QStringLiteral("notes.txt"));
    // Four rounds of four calls: twenty transcript messages. A fifth round of three fills the
    // transcript to its 24; a sixth would pass it, so its call is not run.
    for (int round = 0; round < 4; ++round)
        enqueue(toolRound(u"R%1"_s.arg(round), four, u"r%1_"_s.arg(round), "0.000001"));
    enqueue(toolRound(u"R4"_s, QStringList(3, QStringLiteral("notes.txt")), u"r4_"_s, "0.000001"));
    enqueue(toolRound(u"R5"_s, {QStringLiteral("notes.txt")}, u"r5_"_s, "0.000001"));
    enqueue(answer(QStringLiteral("too far"), "1"));

    runTask(session.send(QStringLiteral("Read a lot"), {}));

    EXPECT_EQ(chatBodies().size(), 6);
    const auto& reply = lastReply();
    EXPECT_EQ(reply.text, u"R5");
    ASSERT_TRUE(reply.exchanges);
    EXPECT_EQ(reply.exchanges->size(), SavedConversation::maxExchangeMessages);
    EXPECT_EQ(reply.meta.first(),
              (SavedConversation::Meta{ChatSession::transcriptFullWarning(), true}));
    EXPECT_EQ(reply.meta.at(1).text, u"Total charged $0.000006");

    // What the turn did can be saved and continued.
    session.setSavingAllowed([] { return true; });
    runTask(session.save());
    EXPECT_FALSE(session.saveError());
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 1);
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
