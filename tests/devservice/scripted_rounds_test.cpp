// The scripted model across the rounds of one turn: "@round" sections answered by how many
// rounds of tool results follow the last user message.
#include "chat_request.h"
#include "devservice_process.h"
#include "event_stream.h"
#include "qstring_printer.h"

#include <QJsonArray>
#include <gtest/gtest.h>

using namespace kestrolan::test;

namespace {

class ScriptedRounds : public ::testing::Test {
protected:
    ScriptedRounds()
        : token(service.signIn()) {}

    // The script as the user's message, followed by `answered` rounds of one call and its
    // result each, as a client sends them.
    static QJsonObject afterRounds(const QString& script, int answered) {
        QJsonObject body = scripted(script);
        QJsonArray messages = body.value(QStringLiteral("messages")).toArray();
        for (int round = 0; round < answered; ++round) {
            const QString id = QStringLiteral("r%1").arg(round);
            messages.append(QJsonObject{
                {QStringLiteral("role"), QStringLiteral("assistant")},
                {QStringLiteral("content"), QJsonValue::Null},
                {QStringLiteral("tool_calls"),
                 QJsonArray{QJsonObject{
                     {QStringLiteral("id"), id},
                     {QStringLiteral("type"), QStringLiteral("function")},
                     {QStringLiteral("function"),
                      QJsonObject{{QStringLiteral("name"), QStringLiteral("read_file")},
                                  {QStringLiteral("arguments"), QStringLiteral("{}")}}}}}}});
            messages.append(QJsonObject{{QStringLiteral("role"), QStringLiteral("tool")},
                                        {QStringLiteral("content"), QString(u"result " + id)},
                                        {QStringLiteral("tool_call_id"), id}});
        }
        body.insert(QStringLiteral("messages"), messages);
        return body;
    }

    EventStream chat(const QJsonObject& body) {
        const auto reply = service.post(QStringLiteral("/api/chat"), body, token);
        EXPECT_EQ(reply.status, 200) << reply.body.constData();
        return EventStream::parse(reply.body);
    }

    // The calls the stream asks for, in order, as "id name".
    static QStringList calledTools(const EventStream& stream) {
        QStringList names;
        for (const auto& chunk : stream.chunks())
            for (const auto& choice : chunk.value(QStringLiteral("choices")).toArray())
                for (const auto& call : choice.toObject()
                                            .value(QStringLiteral("delta"))
                                            .toObject()
                                            .value(QStringLiteral("tool_calls"))
                                            .toArray()) {
                    const auto function = call.toObject().value(QStringLiteral("function"));
                    if (call.toObject().contains(QStringLiteral("id")))
                        names.append(call.toObject().value(QStringLiteral("id")).toString() + u' ' +
                                     function.toObject().value(QStringLiteral("name")).toString());
                }
        return names;
    }

    DevServiceProcess service;
    QString token;
};

TEST_F(ScriptedRounds, EachRoundOfResultsSelectsTheNextSectionThenTheAnswer) {
    const QString script = QStringLiteral("@tool read_file {}\n"
                                          "@round\n"
                                          "@text Two more.\n"
                                          "@tool list_directory {}\n"
                                          "@tool search {}\n"
                                          "@round\n"
                                          "@usage 7 3\n"
                                          "@finish length\n"
                                          "@text Nearly.\n"
                                          "@round\n"
                                          "@then All done.");

    const auto first = chat(afterRounds(script, 0));
    EXPECT_EQ(calledTools(first), QStringList{QStringLiteral("call_1 read_file")});
    EXPECT_EQ(first.finishReasons(), QStringList{QStringLiteral("tool_calls")});

    // Call ids and indexes start over in every round.
    const auto second = chat(afterRounds(script, 1));
    EXPECT_EQ(second.content(), u"Two more.");
    EXPECT_EQ(calledTools(second), (QStringList{QStringLiteral("call_1 list_directory"),
                                                QStringLiteral("call_2 search")}));

    // A section's own options apply to its round only.
    const auto third = chat(afterRounds(script, 2));
    EXPECT_EQ(third.content(), u"Nearly.");
    EXPECT_EQ(third.finishReasons(), QStringList{QStringLiteral("length")});
    ASSERT_EQ(third.usages().size(), 1);
    EXPECT_EQ(third.usages()[0].value(QStringLiteral("prompt_tokens")).toInt(), 7);

    // An empty last section still answers; past it comes @then, from whichever section.
    EXPECT_EQ(chat(afterRounds(script, 3)).content(), u"Scripted reply.");
    const auto past = chat(afterRounds(script, 4));
    EXPECT_EQ(past.content(), u"All done.");
    EXPECT_TRUE(calledTools(past).isEmpty());
    EXPECT_EQ(chat(afterRounds(QStringLiteral("@tool a {}\n@round\n@tool b {}"), 5)).content(),
              u"Received 5 tool results.");
}

TEST_F(ScriptedRounds, EveryRoundIsCheckedAndToolResultsCanBeReported) {
    // The bad line is in a round not being answered, and still refused with its line number.
    const auto refused = service.post(
        QStringLiteral("/api/chat"),
        afterRounds(QStringLiteral("@text fine\n@round\n@text fine\n@round\n@bogus"), 0), token);
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.error().value(QStringLiteral("message")).toString(),
              u"Line 5: unknown directive @bogus.");
    const auto withArgument = service.post(QStringLiteral("/api/chat"),
                                           afterRounds(QStringLiteral("@round 2"), 0), token);
    EXPECT_EQ(withArgument.status, 400);

    EXPECT_EQ(chat(afterRounds(QStringLiteral("@tool-results"), 0)).content(), u"No tool results.");
    EXPECT_EQ(chat(afterRounds(QStringLiteral("@tool x {}\n@round\n@tool x {}\n@round\n"
                                              "@tool-results"),
                               2))
                  .content(),
              u"r0 result r0\nr1 result r1");
}

} // namespace
