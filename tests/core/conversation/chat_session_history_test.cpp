#include "chat_session_fixture.h"

#include <QSignalSpy>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace kestrolan::test::chat;

namespace {

using State = SavedConversation::Reply::State;

QStringList contents(const QJsonObject& body) {
    QStringList texts;
    for (const auto message : body.value(u"messages").toArray()) {
        if (message[u"role"].toString() != u"system")
            texts.append(message[u"content"].toString());
    }
    return texts;
}

TEST_F(ChatSessionTest, EachColumnAsksItsModelAndKeepsItsOwnCharges) {
    EXPECT_EQ(session.slotModels(), QStringList{kModel});
    EXPECT_FALSE(session.addSlot(u"kestrolan/retired"_s));
    EXPECT_FALSE(session.addSlot(u"no/such-model"_s));
    EXPECT_TRUE(session.addSlot(kEchoModel));
    EXPECT_TRUE(session.addSlot(kThirdModel));
    EXPECT_FALSE(session.addSlot(kThirdModel)); // three columns at most
    EXPECT_TRUE(session.removeSlot(2));
    EXPECT_FALSE(session.removeSlot(2));
    EXPECT_EQ(session.slotModels(), (QStringList{kModel, kEchoModel}));

    enqueue(answer(QStringLiteral("From tools"), "0.00002"));
    enqueue(text(QStringLiteral("From echo")) + finish(QStringLiteral("stop")) +
            billing("0.00003", "unresolved") + kDone);
    runTask(session.send(QStringLiteral("Compare"), {}));

    const auto bodies = chatBodies();
    ASSERT_EQ(bodies.size(), 2);
    EXPECT_EQ(bodies[0].value(u"model").toString(), kModel);
    EXPECT_EQ(bodies[1].value(u"model").toString(), kEchoModel);
    // Each request takes its model's own default allowance.
    EXPECT_EQ(bodies[1].value(u"max_tokens").toInt(), 512);

    const auto& replies = session.conversation().turns.last().replies;
    ASSERT_EQ(replies.size(), 2);
    EXPECT_EQ(replies[0].slot, 0);
    EXPECT_EQ(replies[0].text, u"From tools");
    EXPECT_EQ(metaTexts(replies[0]), QStringList{u"Charged $0.00002"_s});
    EXPECT_EQ(replies[1].slot, 1);
    EXPECT_EQ(replies[1].model, kEchoModel);
    EXPECT_EQ(replies[1].text, u"From echo");
    ASSERT_EQ(replies[1].meta.size(), 1);
    EXPECT_TRUE(replies[1].meta[0].error); // unresolved: a warning
    // The session's line sums the turn: the first reply settled, the second not.
    EXPECT_EQ(session.charges().totalMillionths, 20u);
    EXPECT_EQ(session.chargeSummary(),
              u"Total charged $0.00002. Billing confirmation pending; see Activity."_s);

    // Each column continues its own conversation.
    enqueue(answer(QStringLiteral("A2"), "0.00001"));
    enqueue(answer(QStringLiteral("B2"), "0.00001"));
    runTask(session.send(QStringLiteral("And then?"), {}));
    EXPECT_EQ(contents(chatBodies()[2]),
              (QStringList{u"Compare"_s, u"From tools"_s, u"And then?"_s}));
    EXPECT_EQ(contents(chatBodies()[3]),
              (QStringList{u"Compare"_s, u"From echo"_s, u"And then?"_s}));

    // Closing the first column drops its replies; the other becomes column 0 and answers alone.
    QSignalSpy reset(&session, &ChatSession::transcriptReset);
    EXPECT_TRUE(session.removeSlot(0));
    EXPECT_EQ(reset.count(), 1);
    EXPECT_FALSE(session.removeSlot(0));
    EXPECT_EQ(session.slotModels(), QStringList{kEchoModel});
    for (const auto& turn : session.conversation().turns) {
        ASSERT_EQ(turn.replies.size(), 1);
        EXPECT_EQ(turn.replies[0].slot, 0);
        EXPECT_EQ(turn.replies[0].model, kEchoModel);
    }
    enqueue(answer(QStringLiteral("B3"), "0.00001"));
    runTask(session.send(QStringLiteral("Last"), {}));
    ASSERT_EQ(chatBodies().size(), 5);
    EXPECT_EQ(chatBodies()[4].value(u"model").toString(), kEchoModel);
    EXPECT_EQ(contents(chatBodies()[4]).at(1), u"From echo");
}

TEST_F(ChatSessionTest, AStopEndsEveryColumnOfTheTurn) {
    ASSERT_TRUE(session.addSlot(kEchoModel));
    const QByteArray first = text(QStringLiteral("Par"));
    auto slow = TestResponse::eventStream(first + answer(QStringLiteral("tial"), "0.00001"));
    slow.pieceSize = first.size();
    slow.pieceDelay = 600s;
    enqueue(slow);
    enqueue(answer(QStringLiteral("never asked"), "0.00001"));

    auto turn = session.send(QStringLiteral("Both"), {});
    runUntil(
        [this] { return !session.conversation().turns.isEmpty() && lastReply().text == u"Par"; });
    session.stop();
    runTask(std::move(turn));

    EXPECT_EQ(chatBodies().size(), 1);
    const auto& replies = session.conversation().turns.last().replies;
    ASSERT_EQ(replies.size(), 2);
    EXPECT_EQ(replies[0].text, u"Par");
    for (const auto& reply : replies) {
        EXPECT_EQ(reply.state, State::stopped);
        EXPECT_TRUE(metaTexts(reply).contains(ChatSession::stoppedLine()));
    }
    EXPECT_TRUE(replies[1].text.isEmpty());
    EXPECT_FALSE(slots.isActive(session.id()));
}

TEST_F(ChatSessionTest, AnAgentSetsModelInstructionsAndSettingsForLaterTurns) {
    const TurnContext::Instructions pirate{QUuid::createUuid(), u"Pirate"_s,
                                           u"Talk like a pirate."_s};
    // A model the catalog does not offer changes nothing.
    EXPECT_FALSE(session.applyAgent(pirate, u"kestrolan/retired"_s,
                                    SavedConversation::Settings{.temperature = u"0.9"_s}));
    EXPECT_FALSE(session.agent());
    EXPECT_TRUE(session.conversation().settings.temperature.isEmpty());

    EXPECT_TRUE(session.applyAgent(pirate, kEchoModel,
                                   SavedConversation::Settings{.temperature = u"0.9"_s}));
    enqueue(answer(QStringLiteral("Arr"), "0.00001"));
    runTask(session.send(QStringLiteral("Hi"), {}));

    const auto body = chatBodies().at(0);
    EXPECT_EQ(body.value(u"model").toString(), kEchoModel);
    EXPECT_EQ(body.value(u"temperature").toDouble(), 0.9);
    const QString system = body.value(u"messages").toArray().at(0)[u"content"].toString();
    EXPECT_TRUE(system.contains(u"Talk like a pirate.")) << system.toStdString();
    EXPECT_EQ(session.turnContexts().value(lastTurnID()).agent, pirate);

    // Without the agent the next turn has no pirate in its system text.
    EXPECT_TRUE(session.applyAgent(std::nullopt));
    enqueue(answer(QStringLiteral("Hello"), "0.00001"));
    runTask(session.send(QStringLiteral("Hi again"), {}));
    EXPECT_FALSE(chatBodies()
                     .at(1)
                     .value(u"messages")
                     .toArray()
                     .at(0)[u"content"]
                     .toString()
                     .contains(u"pirate"));
    EXPECT_EQ(chatBodies().at(1).value(u"model").toString(), kEchoModel);
}

TEST_F(ChatSessionTest, AnEditReplacesItsTurnAndEverythingAfter) {
    for (const auto* reply : {"A1", "A2", "A3"})
        enqueue(answer(QString::fromLatin1(reply), "0.00001"));
    for (const auto* user : {"Q1", "Q2", "Q3"})
        runTask(session.send(QString::fromLatin1(user), {}));
    ASSERT_EQ(session.conversation().turns.size(), 3);
    const QUuid second = session.conversation().turns[1].id;

    // Input the session would not send removes nothing.
    runTask(session.edit(second, QStringLiteral("   "), {}));
    TurnContext tooBig;
    tooBig.attachments.append({u"big.txt"_s, QString(65 * 1024, u'x')});
    runTask(session.edit(second, QStringLiteral("Q2 with a file"), tooBig));
    EXPECT_EQ(session.conversation().turns.size(), 3);
    EXPECT_EQ(chatBodies().size(), 3);

    QSignalSpy removed(&session, &ChatSession::turnsRemoved);
    QSignalSpy added(&session, &ChatSession::turnAdded);
    enqueue(answer(QStringLiteral("A2 edited"), "0.00001"));
    runTask(session.edit(second, QStringLiteral("Q2 edited"), {}));

    ASSERT_EQ(session.conversation().turns.size(), 2);
    EXPECT_EQ(session.conversation().turns[1].user, u"Q2 edited");
    EXPECT_EQ(lastReply().text, u"A2 edited");
    EXPECT_EQ(contents(chatBodies().last()), (QStringList{u"Q1"_s, u"A1"_s, u"Q2 edited"_s}));
    ASSERT_EQ(removed.count(), 1);
    EXPECT_EQ(removed.at(0).at(0).toInt(), 1);
    ASSERT_EQ(added.count(), 1);
    EXPECT_EQ(added.at(0).at(0).toInt(), 1);
    EXPECT_FALSE(session.turnContexts().contains(second));

    // Regenerating asks again with the same text and attachments.
    TurnContext attached;
    attached.attachments.append({u"tide.txt"_s, u"06:12"_s});
    enqueue(answer(QStringLiteral("A3"), "0.00001"));
    runTask(session.send(QStringLiteral("Q3"), attached));
    enqueue(answer(QStringLiteral("A3 again"), "0.00001"));
    runTask(session.regenerate(lastTurnID()));
    ASSERT_EQ(session.conversation().turns.size(), 3);
    EXPECT_EQ(lastReply().text, u"A3 again");
    EXPECT_EQ(contents(chatBodies().last()), contents(chatBodies().at(chatBodies().size() - 2)));
    EXPECT_TRUE(contents(chatBodies().last()).last().contains(u"06:12"));

    EXPECT_TRUE(session.truncateAfter(session.conversation().turns[0].id));
    EXPECT_EQ(session.conversation().turns.size(), 1);
    EXPECT_FALSE(session.truncateAfter(QUuid::createUuid()));
    EXPECT_EQ(ChatSession::replaceLaterMessagesTitle(), u"Replace later messages?");
    EXPECT_EQ(ChatSession::replaceLaterMessagesExplanation(),
              u"Sending this edit removes the messages after it.");
}

TEST_F(ChatSessionTest, ALoadedChatContinuesWithItsToolTranscript) {
    const QByteArray id = "0b5f3a4e-7d2c-4c1a-9e8f-1a2b3c4d5e6f";
    const QByteArray stored =
        R"({"version":2,"title":"Tides","slots":["kestrolan/tools"],)"
        R"("settings":{"system":"","maxTokens":"","temperature":""},"turns":[{"user":"Read both",)"
        R"("replies":[{"slot":0,"model":"kestrolan/tools","text":"Done","state":"stopped","meta":[],)"
        R"("exchanges":[{"role":"assistant","content":"Reading.","tool_calls":[)"
        R"({"id":"old_0","type":"function","function":{"name":"read_file","arguments":"{\"path\":\"a.txt\"}"}},)"
        R"({"id":"old_1","type":"function","function":{"name":"read_file","arguments":"{\"path\":\"b.txt\"}"}}]},)"
        R"({"role":"tool","content":"{\"text\":\"a\"}","tool_call_id":"old_0"}]}]}]})";
    {
        std::lock_guard lock(mutex);
        storedChats.insert(id, stored);
    }
    session.setSavingAllowed([] { return true; });

    // An unknown chat leaves the session as it was.
    runTask(session.load(QUuid::createUuid()));
    EXPECT_TRUE(session.errorMessage());
    EXPECT_TRUE(session.conversation().turns.isEmpty());
    EXPECT_FALSE(session.isLoading());

    auto loading = session.load(QUuid::fromString(QLatin1StringView(id)));
    EXPECT_TRUE(session.isLoading());
    runTask(std::move(loading));
    EXPECT_FALSE(session.isLoading());
    EXPECT_FALSE(session.errorMessage());
    EXPECT_EQ(session.savedID(), QUuid::fromString(QLatin1StringView(id)));
    ASSERT_EQ(session.conversation().turns.size(), 1);
    EXPECT_FALSE(session.isDirty());

    enqueue(answer(QStringLiteral("Continuing."), "0.00001"));
    runTask(session.send(QStringLiteral("Go on"), {}));

    const auto messages = chatBodies().at(0).value(u"messages").toArray();
    QStringList shape;
    for (const auto message : messages) {
        const QString role = message[u"role"].toString();
        shape.append(role == u"tool" ? u"tool:"_s + message[u"tool_call_id"].toString() : role);
    }
    EXPECT_EQ(shape, (QStringList{u"system"_s, u"user"_s, u"assistant"_s, u"tool:old_0"_s,
                                  u"tool:old_1"_s, u"assistant"_s, u"user"_s}));
    EXPECT_TRUE(messages[4][u"content"].toString().contains(u"cancelled"));
    EXPECT_EQ(messages[5][u"content"].toString(), u"Done");
    // A chat saved before is saved again after every turn, under its id.
    EXPECT_EQ(requestCount("PUT", "/api/chats/" + id), 1);
    EXPECT_FALSE(session.isDirty());
}

TEST_F(ChatSessionTest, SavingNeedsPermissionAndAValidTranscript) {
    grant(LocalAccessMode::readOnlyWorkspace);
    enqueue(answer(QStringLiteral("Hi"), "0.00001"));
    runTask(session.send(QStringLiteral("Hello"), {}));

    // Zero data retention: refused without a request.
    bool allowed = false;
    session.setSavingAllowed([&allowed] { return allowed; });
    runTask(session.save());
    EXPECT_EQ(session.saveError(), u"Saving is off while Zero Data Retention is on.");
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 0);
    EXPECT_FALSE(session.savedID());

    // A model calling a tool that does not exist leaves a transcript no save can carry.
    allowed = true;
    enqueue(text(QStringLiteral("Erasing.")) +
            calls(QStringLiteral("erase_disk"), {QJsonObject{{u"path"_s, u"/"_s}}}, u"bad_"_s) +
            finish(QStringLiteral("tool_calls")) + billing("0.00001") + kDone);
    enqueue(answer(QStringLiteral("It failed."), "0.00001"));
    runTask(session.send(QStringLiteral("Erase"), {}));
    ASSERT_TRUE(lastReply().exchanges);
    const QUuid broken = lastTurnID();
    runTask(session.save());
    EXPECT_EQ(session.saveError(), ChatSession::transcriptInvalidMessage());
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 0);
    // Nor can the chat continue past it: nothing is sent.
    runTask(session.send(QStringLiteral("Next"), {}));
    EXPECT_EQ(chatBodies().size(), 3);
    EXPECT_EQ(session.conversation().turns.size(), 2);

    // Asking that turn again replaces the broken transcript; then the chat saves.
    enqueue(answer(QStringLiteral("I cannot erase disks."), "0.00001"));
    runTask(session.regenerate(broken));
    EXPECT_EQ(chatBodies().size(), 4);
    runTask(session.save());
    EXPECT_FALSE(session.saveError());
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 1);

    // Once saved, a turn under zero retention is not saved and says why.
    allowed = false;
    enqueue(answer(QStringLiteral("Later"), "0.00001"));
    runTask(session.send(QStringLiteral("More"), {}));
    EXPECT_EQ(requestCount("PUT", "/api/chats/"), 1);
    EXPECT_EQ(session.saveError(), u"Saving is off while Zero Data Retention is on.");
    EXPECT_TRUE(session.isDirty());
}

TEST_F(ChatSessionTest, StreamingTextUpdatesOnlyItsReply) {
    QByteArray body;
    for (int i = 0; i < 200; ++i)
        body += text(u"w%1 "_s.arg(i));
    enqueue(body + finish(QStringLiteral("stop")) + billing("0.00001") + kDone);
    QSignalSpy changed(&session, &ChatSession::changed);
    QList<std::pair<QUuid, int>> updates;
    QObject::connect(&session, &ChatSession::replyChanged, [&updates](QUuid turnID, int slot) {
        updates.append({turnID, slot});
    });

    runTask(session.send(QStringLiteral("Talk"), {}));

    EXPECT_TRUE(lastReply().text.startsWith(u"w0 w1 "));
    EXPECT_GE(updates.size(), 200);
    for (const auto& [turnID, slot] : updates) {
        EXPECT_EQ(turnID, lastTurnID());
        EXPECT_EQ(slot, 0);
    }
    // Session-wide state changes a handful of times per turn, not once per piece of text.
    EXPECT_LT(changed.count(), 20);
}

} // namespace
