#include "conversation/chat_request.h"
#include "support/json_reader.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

QJsonObject parse(const char* json) {
    return QJsonDocument::fromJson(QByteArray(json)).object();
}

ToolCall call(const char* id) {
    return ToolCall{QString::fromUtf8(id),
                    QStringLiteral("function"),
                    {QStringLiteral("read_file"), QStringLiteral(R"({"path":"a.txt"})")}};
}

} // namespace

TEST(ChatMessage, ContentIsNullOnlyForToolOnlyAssistantTurns) {
    ChatMessage toolsOnly{.role = ChatMessage::Role::assistant, .toolCalls = QList<ToolCall>{}};
    EXPECT_TRUE(toolsOnly.toJson().value(u"content").isNull());
    EXPECT_TRUE(toolsOnly.toJson().value(u"tool_calls").isArray());

    ChatMessage noList{.role = ChatMessage::Role::assistant};
    EXPECT_EQ(noList.toJson().value(u"content"), QJsonValue(QString()));
    EXPECT_FALSE(noList.toJson().contains(u"tool_calls"));

    ChatMessage withText{.role = ChatMessage::Role::assistant,
                         .content = QStringLiteral("Let me look."),
                         .toolCalls = QList<ToolCall>{call("c1")}};
    EXPECT_EQ(withText.toJson().value(u"content"), QJsonValue(QStringLiteral("Let me look.")));

    // Other roles never send null, even when empty.
    ChatMessage user{.role = ChatMessage::Role::user, .toolCalls = QList<ToolCall>{}};
    EXPECT_EQ(user.toJson().value(u"content"), QJsonValue(QString()));
}

TEST(ChatMessage, EncodesToolAnswersAndCallsWithWireKeys) {
    ChatMessage answer{.role = ChatMessage::Role::tool,
                       .content = QStringLiteral("{}"),
                       .toolCallID = QStringLiteral("c1")};
    EXPECT_EQ(answer.toJson(), parse(R"({"role":"tool","content":"{}","tool_call_id":"c1"})"));

    ChatMessage asked{.role = ChatMessage::Role::assistant, .toolCalls = QList{call("c1")}};
    EXPECT_EQ(asked.toJson(), parse(R"({"role":"assistant","content":null,"tool_calls":[
        {"id":"c1","type":"function",
         "function":{"name":"read_file","arguments":"{\"path\":\"a.txt\"}"}}]})"));
}

TEST(ChatMessage, DecodesWithFreshIdsAndDefaults) {
    const auto json = parse(R"({"role":"assistant","tool_calls":[{"id":"c1","type":"function",
        "function":{"name":"read_file","arguments":"{\"path\":\"a.txt\"}"}}]})");
    const auto first = ChatMessage::fromJson(json);
    const auto second = ChatMessage::fromJson(json);
    EXPECT_TRUE(first.content.isEmpty());
    EXPECT_NE(first.id, second.id);
    EXPECT_FALSE(first.id.isNull());
    ASSERT_TRUE(first.toolCalls.has_value());
    EXPECT_EQ(*first.toolCalls, QList{call("c1")});
    EXPECT_FALSE(first.toolCallID.has_value());

    // Null content reads as empty; the round trip keeps everything but the id.
    const auto roundTrip = ChatMessage::fromJson(first.toJson());
    EXPECT_EQ(roundTrip.toolCalls, first.toolCalls);
    EXPECT_EQ(roundTrip.role, ChatMessage::Role::assistant);

    EXPECT_THROW(ChatMessage::fromJson(parse(R"({"content":"hi"})")), JsonReader::FieldError);
    EXPECT_THROW(ChatMessage::fromJson(parse(R"({"role":"robot"})")), JsonReader::FieldError);
    EXPECT_THROW(ChatMessage::fromJson(parse(R"({"role":"user","content":3})")),
                 JsonReader::FieldError);
    EXPECT_THROW(ChatMessage::fromJson(parse(R"({"role":"assistant","tool_calls":[{"id":"c"}]})")),
                 JsonReader::FieldError);
}

TEST(ChatRequest, OmitsAbsentKeys) {
    ChatRequest request{.model = QStringLiteral("kestrolan/echo"),
                        .messages = {ChatMessage{.content = QStringLiteral("hi")}}};
    EXPECT_EQ(request.toJson().keys(),
              (QStringList{QStringLiteral("messages"), QStringLiteral("model")}));

    request.maxTokens = 512;
    request.temperature = 0.5;
    request.tools = ToolDefinition::available(LocalAccessMode::readOnlyWorkspace);
    request.toolChoice = QStringLiteral("auto");
    request.parallelToolCalls = false;
    const auto full = QJsonDocument::fromJson(request.encoded()).object();
    EXPECT_EQ(full.value(u"max_tokens").toInt(), 512);
    EXPECT_EQ(full.value(u"temperature").toDouble(), 0.5);
    EXPECT_EQ(full.value(u"tool_choice").toString(), u"auto");
    EXPECT_EQ(full.value(u"parallel_tool_calls"), QJsonValue(false));
    const auto tools = full.value(u"tools").toArray();
    ASSERT_EQ(tools.size(), 3);
    EXPECT_EQ(tools[0].toObject().value(u"type").toString(), u"function");
    EXPECT_EQ(tools[2].toObject().value(u"function").toObject().value(u"name").toString(),
              u"search");
    EXPECT_FALSE(full.contains(u"stream"));
}
