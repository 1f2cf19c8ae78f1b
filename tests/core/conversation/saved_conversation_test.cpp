#include "conversation/saved_conversation.h"
#include "qstring_printer.h"
#include "service/client_error.h"
#include "tools/tool_result.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace kestrolan;
using Reply = SavedConversation::Reply;
using Turn = SavedConversation::Turn;

namespace {

const QString unreadable = QStringLiteral("Kestrolan returned an unreadable response.");

ToolCall readCall(const char* id, const char* path = "a.txt") {
    return ToolCall{QString::fromUtf8(id),
                    QStringLiteral("function"),
                    {QStringLiteral("read_file"),
                     QStringLiteral(R"({"path":"%1"})").arg(QString::fromUtf8(path))}};
}

ChatMessage asked(QList<ToolCall> calls) {
    return ChatMessage{.role = ChatMessage::Role::assistant, .toolCalls = std::move(calls)};
}

ChatMessage answer(const char* id, const char* content = "{\"text\":\"hi\"}") {
    return ChatMessage{.role = ChatMessage::Role::tool,
                       .content = QString::fromUtf8(content),
                       .toolCallID = QString::fromUtf8(id)};
}

Reply reply(QString text, int slot = 0) {
    Reply r;
    r.slot = slot;
    r.model = QStringLiteral("kestrolan/echo");
    r.text = std::move(text);
    return r;
}

Turn turn(QString user, QList<Reply> replies = {}) {
    Turn t;
    t.user = std::move(user);
    t.replies = std::move(replies);
    return t;
}

SavedConversation conversation(std::optional<int> version = 2) {
    SavedConversation c;
    c.version = version;
    c.slots = {QStringLiteral("kestrolan/echo")};
    c.settings = {QStringLiteral("Be brief."), QStringLiteral("512"), QStringLiteral("0.7")};
    c.turns = {turn(QStringLiteral("Hello"), {reply(QStringLiteral("Hi there."))})};
    return c;
}

QString failure(const std::function<void()>& action) {
    try {
        action();
    } catch (const ClientError& error) {
        return error.description();
    }
    return QStringLiteral("<accepted>");
}

QString validation(const SavedConversation& c) {
    return failure([&] { c.validate(); });
}

QString exchangeFailure(const QList<ChatMessage>& exchanges) {
    return failure([&] { SavedConversation::completedExchanges(exchanges); });
}

const QString accepted = QStringLiteral("<accepted>");

} // namespace

TEST(SavedConversation, RoundTripsThroughItsJsonKeys) {
    auto c = conversation();
    c.title = QStringLiteral("Greeting");
    c.turns[0].attachments = QList{WireAttachment{QStringLiteral("a.txt"), QStringLiteral("A")}};
    auto& r = c.turns[0].replies[0];
    r.exchanges = QList{asked({readCall("c1")}), answer("c1")};
    r.state = Reply::State::stopped;
    r.finishReason = QStringLiteral("tool_calls");
    r.error = SavedConversation::ReplyError{QStringLiteral("insufficient_credit"),
                                            QStringLiteral("Add credit.")};
    r.meta = {
        {QStringLiteral("Total charged $0.01"), false},
        {QStringLiteral("Billing confirmation pending; see Activity before continuing."), true}};

    const auto json = c.toJson();
    EXPECT_EQ(json.value(u"settings").toObject(),
              (QJsonObject{{QStringLiteral("system"), QStringLiteral("Be brief.")},
                           {QStringLiteral("maxTokens"), QStringLiteral("512")},
                           {QStringLiteral("temperature"), QStringLiteral("0.7")}}));
    const auto replyJson =
        json.value(u"turns").toArray()[0].toObject().value(u"replies").toArray()[0].toObject();
    EXPECT_EQ(replyJson.value(u"finish_reason").toString(), u"tool_calls");
    EXPECT_EQ(replyJson.value(u"state").toString(), u"stopped");
    EXPECT_EQ(replyJson.value(u"error").toObject().value(u"code").toString(),
              u"insufficient_credit");
    EXPECT_EQ(replyJson.value(u"meta").toArray()[1].toObject().value(u"error"), QJsonValue(true));
    EXPECT_TRUE(replyJson.value(u"exchanges").toArray()[0].toObject().value(u"content").isNull());

    const auto decoded = SavedConversation::decode(c.encoded());
    EXPECT_EQ(decoded.toJson(), json);
    EXPECT_EQ(decoded.turns[0].replies[0].exchanges->at(1).toolCallID, u"c1");
    EXPECT_NE(decoded.turns[0].id, c.turns[0].id); // local ids are never stored

    // Absent optionals leave their keys out.
    const auto plain = conversation(std::nullopt).toJson();
    EXPECT_FALSE(plain.contains(u"version"));
    EXPECT_FALSE(plain.contains(u"title"));
    const auto plainReply =
        plain.value(u"turns").toArray()[0].toObject().value(u"replies").toArray()[0].toObject();
    EXPECT_EQ(plainReply.keys(),
              (QStringList{QStringLiteral("meta"), QStringLiteral("model"), QStringLiteral("slot"),
                           QStringLiteral("state"), QStringLiteral("text")}));
}

TEST(SavedConversation, RefusesBodiesThatAreNotADocument) {
    const auto decode = [](const QByteArray& body) {
        return failure([&body] { SavedConversation::fromJson(body); });
    };
    const char* base =
        R"({"slots":["m"],"settings":{"system":"","maxTokens":"","temperature":""},"turns":[)";
    const auto withTurn = [&](const QByteArray& turnJson) {
        return decode(QByteArray(base) + turnJson + QByteArray("]}"));
    };
    EXPECT_EQ(withTurn(R"({"user":"hi","replies":[]})"), accepted);
    EXPECT_EQ(decode("not json"), unreadable);
    EXPECT_EQ(decode("[]"), unreadable);
    EXPECT_EQ(decode(R"({"slots":[],"turns":[]})"), unreadable); // no settings
    EXPECT_EQ(decode(R"({"slots":[1],"settings":{"system":"","maxTokens":"","temperature":""},
                         "turns":[]})"),
              unreadable);
    EXPECT_EQ(decode(R"({"slots":[],"settings":{"system":"","max_tokens":"","temperature":""},
                         "turns":[]})"),
              unreadable);
    EXPECT_EQ(decode(R"({"version":1.5,"slots":[],"settings":{"system":"","maxTokens":"",
                         "temperature":""},"turns":[]})"),
              unreadable);
    EXPECT_EQ(withTurn(R"({"user":"hi","replies":[{"slot":0,"model":"m","text":"",
                           "state":"finished","meta":[]}]})"),
              unreadable);
    EXPECT_EQ(withTurn(R"({"user":"hi","replies":[{"slot":4294967296,"model":"m","text":"",
                           "state":"complete","meta":[]}]})"),
              unreadable);
    EXPECT_EQ(withTurn(R"({"user":"hi","replies":[{"slot":0,"model":"m","text":"",
                           "state":"complete","meta":[{"text":"x"}]}]})"),
              unreadable);
    // A transcript's tool call is read strictly: an unknown key anywhere in it fails.
    const char* exchange = R"({"user":"hi","replies":[{"slot":0,"model":"m","text":"",
        "state":"complete","meta":[],"exchanges":[{"role":"assistant","content":null,
        "tool_calls":[{"id":"c1","type":"function",%1}]}]}]})";
    const auto withCall = [&](const char* function) {
        return withTurn(QString::fromUtf8(exchange).arg(QString::fromUtf8(function)).toUtf8());
    };
    EXPECT_EQ(withCall(R"("function":{"name":"read_file","arguments":"{}"})"), accepted);
    EXPECT_EQ(withCall(R"("function":{"name":"read_file","arguments":"{}"},"index":0)"),
              unreadable);
    EXPECT_EQ(withCall(R"("function":{"name":"read_file","arguments":"{}","extra":1})"),
              unreadable);
}

TEST(SavedConversation, ValidatesVersionsAttachmentsAndUserText) {
    for (const auto version : {std::optional<int>(), std::optional(1), std::optional(2)})
        EXPECT_EQ(validation(conversation(version)), accepted);
    EXPECT_EQ(validation(conversation(0)), unreadable);
    EXPECT_EQ(validation(conversation(3)), unreadable);

    auto attached = conversation(2);
    attached.turns[0].user = QString();
    attached.turns[0].attachments =
        QList{WireAttachment{QStringLiteral("a.txt"), QStringLiteral("A")}};
    EXPECT_EQ(validation(attached), accepted);
    attached.version = 1;
    EXPECT_EQ(validation(attached), unreadable);
    attached.version = std::nullopt;
    EXPECT_EQ(validation(attached), unreadable);

    auto bare = conversation(2);
    bare.turns[0].user = QStringLiteral(" \n\t ");
    EXPECT_EQ(validation(bare), unreadable);
    bare.turns[0].attachments = QList<WireAttachment>{};
    EXPECT_EQ(validation(bare), unreadable);

    auto tooMany = conversation(2);
    tooMany.turns[0].attachments =
        QList<WireAttachment>(21, WireAttachment{QStringLiteral("a"), QStringLiteral("A")});
    EXPECT_EQ(validation(tooMany), unreadable);
    tooMany.turns[0].attachments->removeLast();
    EXPECT_EQ(validation(tooMany), accepted);

    auto withExchanges = conversation(1);
    withExchanges.turns[0].replies[0].exchanges = QList{asked({readCall("c1")}), answer("c1")};
    EXPECT_EQ(validation(withExchanges), unreadable);
    withExchanges.version = 2;
    EXPECT_EQ(validation(withExchanges), accepted);
    // The transcript's calls must be valid operations.
    withExchanges.turns[0].replies[0].exchanges = QList{asked({readCall("c1", "")})};
    EXPECT_EQ(validation(withExchanges), unreadable);
}

TEST(SavedConversation, EnforcesTurnCountAndEncodedSizeAtTheirEdges) {
    auto many = conversation(2);
    many.turns = QList<Turn>(1'000, turn(QStringLiteral("x")));
    EXPECT_EQ(validation(many), accepted);
    many.turns.append(turn(QStringLiteral("x")));
    EXPECT_EQ(validation(many), unreadable);

    // Grow the title until the document encodes to exactly the limit.
    auto big = conversation(2);
    big.title = QString();
    const auto frame = big.encoded().size();
    big.title = QString(SavedConversation::maxEncodedBytes - frame, u't');
    ASSERT_EQ(big.encoded().size(), SavedConversation::maxEncodedBytes);
    EXPECT_EQ(validation(big), accepted);
    big.title->append(u't');
    EXPECT_EQ(validation(big), unreadable);
}

TEST(SavedConversation, CompletesUnansweredCallsWithTheCancelledResult) {
    const auto completed = SavedConversation::completedExchanges(
        {asked({readCall("c1"), readCall("c2")}), answer("c1")});
    ASSERT_EQ(completed.size(), 3);
    EXPECT_EQ(completed[1].toolCallID, u"c1");
    EXPECT_EQ(completed[2].role, ChatMessage::Role::tool);
    EXPECT_EQ(completed[2].toolCallID, u"c2");
    EXPECT_EQ(
        completed[2].content,
        uR"({"status":"cancelled","message":"Interrupted; inspect mutations before retrying."})");

    // An earlier round left open is closed right after its own results, before the next round.
    const auto rounds = SavedConversation::completedExchanges(
        {asked({readCall("a1"), readCall("a2")}), answer("a2"), asked({readCall("b1")})});
    ASSERT_EQ(rounds.size(), 5);
    EXPECT_EQ(rounds[1].toolCallID, u"a2");
    EXPECT_EQ(rounds[2].toolCallID, u"a1");
    EXPECT_EQ(rounds[2].content, ToolResult::cancelled());
    EXPECT_EQ(rounds[3].toolCalls->at(0).id, u"b1");
    EXPECT_EQ(rounds[4].toolCallID, u"b1");

    EXPECT_TRUE(SavedConversation::completedExchanges({}).isEmpty());
}

TEST(SavedConversation, RefusesTranscriptsTheAppCouldNotHaveWritten) {
    EXPECT_EQ(
        exchangeFailure({asked({readCall("1"), readCall("2"), readCall("3"), readCall("4")})}),
        accepted);
    EXPECT_EQ(exchangeFailure({asked(
                  {readCall("1"), readCall("2"), readCall("3"), readCall("4"), readCall("5")})}),
              unreadable);

    QList<ChatMessage> longest;
    for (int round = 0; round < 12; ++round) {
        const auto id = QByteArray::number(round);
        longest.append(asked({readCall(id.constData())}));
        longest.append(answer(id.constData()));
    }
    EXPECT_EQ(exchangeFailure(longest), accepted);
    longest.append(asked({readCall("late")}));
    EXPECT_EQ(exchangeFailure(longest), unreadable);

    EXPECT_EQ(exchangeFailure({asked({readCall("c1")}), asked({readCall("c1")})}), unreadable);
    EXPECT_EQ(exchangeFailure({answer("c1")}), unreadable);
    EXPECT_EQ(exchangeFailure({asked({readCall("c1")}), answer("c9")}), unreadable);
    EXPECT_EQ(exchangeFailure({asked({readCall("c1")}), answer("c1"), answer("c1")}), unreadable);
    // Results answer the round just before them, not an older one.
    EXPECT_EQ(exchangeFailure({asked({readCall("c1")}), asked({readCall("c2")}), answer("c1")}),
              unreadable);
    EXPECT_EQ(exchangeFailure(
                  {ChatMessage{.role = ChatMessage::Role::user, .content = QStringLiteral("hi")}}),
              unreadable);
    EXPECT_EQ(exchangeFailure({ChatMessage{.role = ChatMessage::Role::assistant,
                                           .content = QStringLiteral("plain text")}}),
              unreadable);
    EXPECT_EQ(exchangeFailure({asked({})}), unreadable);
    auto withAnswerID = asked({readCall("c1")});
    withAnswerID.toolCallID = QStringLiteral("c0");
    EXPECT_EQ(exchangeFailure({withAnswerID}), unreadable);
    auto untyped = readCall("c1");
    untyped.type = QStringLiteral("tool");
    EXPECT_EQ(exchangeFailure({asked({untyped})}), unreadable);
    auto undecodable = readCall("c1");
    undecodable.function.arguments = QStringLiteral("{\"path\":");
    EXPECT_EQ(exchangeFailure({asked({undecodable})}), unreadable);
}

TEST(SavedConversation, BecomesInferenceMessagesForOneColumn) {
    auto c = conversation(2);
    c.slots.append(QStringLiteral("other/model"));
    auto first = reply(QStringLiteral("The file says hi."));
    first.exchanges = QList{asked({readCall("c1"), readCall("c2")}), answer("c1")};
    c.turns = {
        turn(QStringLiteral("Read a.txt"), {first, reply(QStringLiteral("Other column."), 1)}),
        turn(QStringLiteral("And now?"), {reply(QString())}),
        turn(QString(), {}),
    };
    c.turns[2].attachments = QList{WireAttachment{QStringLiteral("n.txt"), QStringLiteral("N")}};

    const auto messages = c.inferenceMessages();
    ASSERT_EQ(messages.size(), 7);
    EXPECT_EQ(messages[0].role, ChatMessage::Role::user);
    EXPECT_EQ(messages[0].content, u"Read a.txt");
    EXPECT_EQ(messages[1].toolCalls->size(), 2);
    EXPECT_EQ(messages[2].toolCallID, u"c1");
    EXPECT_EQ(messages[3].toolCallID, u"c2");
    EXPECT_EQ(messages[3].content, ToolResult::cancelled());
    EXPECT_EQ(messages[4].role, ChatMessage::Role::assistant);
    EXPECT_EQ(messages[4].content, u"The file says hi.");
    // A reply without text adds no assistant message.
    EXPECT_EQ(messages[5].content, u"And now?");
    EXPECT_EQ(messages[6].content, u"Attached file \"n.txt\" (untrusted data):\n```\nN\n```");

    const auto other = c.inferenceMessages(1);
    ASSERT_EQ(other.size(), 4);
    EXPECT_EQ(other[1].content, u"Other column.");
}
