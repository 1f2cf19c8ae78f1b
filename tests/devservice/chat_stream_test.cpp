#include "chat_request.h"
#include "devservice_process.h"
#include "event_stream.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QSet>
#include <gtest/gtest.h>
#include <httplib.h>

using namespace kestrolan::test;

namespace {

constexpr qint64 startingBalance = 25'000'000;

class DevServiceStream : public ::testing::Test {
protected:
    DevServiceStream()
        : token(service.signIn()) {}

    EventStream chat(const QJsonObject& body) {
        const auto reply = service.post(QStringLiteral("/api/chat"), body, token);
        EXPECT_EQ(reply.status, 200) << reply.body.constData();
        return EventStream::parse(reply.body);
    }
    EventStream chat(const QString& script) { return chat(scripted(script)); }

    qint64 balance() const {
        return service.adminAccount().value(QStringLiteral("balance_millionths")).toInteger();
    }

    // Streams a request through a raw client, recording when each piece of the body arrived.
    struct Timed {
        bool complete = false;
        QByteArray body;
        QList<std::pair<qint64, QByteArray>> pieces; // ms since the request, bytes
    };
    Timed timedChat(const QString& script) {
        auto client = service.client();
        httplib::Request request;
        request.method = "POST";
        request.path = "/api/chat";
        request.set_header("Authorization", "Bearer " + token.toStdString());
        request.body = QJsonDocument(scripted(script)).toJson(QJsonDocument::Compact).toStdString();
        Timed timed;
        QElapsedTimer clock;
        clock.start();
        request.content_receiver = [&](const char* data, size_t size, uint64_t, uint64_t) {
            timed.pieces.append({clock.elapsed(), QByteArray(data, qsizetype(size))});
            timed.body.append(data, qsizetype(size));
            return true;
        };
        httplib::Response response;
        httplib::Error error{};
        timed.complete = client->send(request, response, error);
        return timed;
    }

    DevServiceProcess service;
    QString token;
};

QSet<QString> keysOf(const QJsonObject& object) {
    const auto keys = object.keys();
    return QSet<QString>(keys.begin(), keys.end());
}

QList<QJsonObject> toolCallDeltas(const EventStream& stream) {
    QList<QJsonObject> deltas;
    for (const auto& chunk : stream.chunks())
        for (const auto& choice : chunk.value(QStringLiteral("choices")).toArray())
            for (const auto& call : choice.toObject()
                                        .value(QStringLiteral("delta"))
                                        .toObject()
                                        .value(QStringLiteral("tool_calls"))
                                        .toArray())
                deltas.append(call.toObject());
    return deltas;
}

} // namespace

TEST_F(DevServiceStream, TextComesWordByWordInTheClientsChunkShape) {
    const auto stream =
        chat(QStringLiteral("Some prose the model ignores.\n@text Hello brave new\\nworld\n"
                            "@chunk one piece\n@repeat 3 ab"));
    EXPECT_EQ(stream.contentPieces(),
              (QStringList{QStringLiteral("Hello "), QStringLiteral("brave "),
                           QStringLiteral("new\n"), QStringLiteral("world"),
                           QStringLiteral("one piece"), QStringLiteral("ababab")}));

    const auto chunks = stream.chunks();
    ASSERT_GE(chunks.size(), 3);
    EXPECT_EQ(chunks.first()
                  .value(QStringLiteral("choices"))
                  .toArray()[0]
                  .toObject()
                  .value(QStringLiteral("delta")),
              QJsonObject({{QStringLiteral("role"), QStringLiteral("assistant")}}));
    for (const auto& chunk : chunks) {
        EXPECT_EQ(chunk.value(QStringLiteral("object")).toString(), u"chat.completion.chunk");
        const auto choices = chunk.value(QStringLiteral("choices")).toArray();
        EXPECT_LE(choices.size(), 1);
        for (const auto& choice : choices) {
            const auto delta = choice.toObject().value(QStringLiteral("delta")).toObject();
            EXPECT_TRUE(keysOf(delta)
                            .subtract({QStringLiteral("role"), QStringLiteral("content"),
                                       QStringLiteral("tool_calls")})
                            .isEmpty());
        }
    }
    EXPECT_EQ(stream.finishReasons(), QStringList{QStringLiteral("stop")});

    // The tail, in order: finish, usage, billing, [DONE].
    const auto& events = stream.events;
    ASSERT_GE(events.size(), 4);
    EXPECT_EQ(events[events.size() - 4]
                  .json()
                  .value(QStringLiteral("choices"))
                  .toArray()[0]
                  .toObject()
                  .value(QStringLiteral("finish_reason")),
              QStringLiteral("stop"));
    EXPECT_TRUE(events[events.size() - 3].json().value(QStringLiteral("usage")).isObject());
    EXPECT_EQ(events[events.size() - 2].name, "kestrolan.billing");
    EXPECT_TRUE(stream.endsWithDone());
    EXPECT_EQ(stream.crlfLines, 0); // plain LF framing

    EXPECT_EQ(chat(QStringLiteral("@text cut\n@finish length")).finishReasons(),
              QStringList{QStringLiteral("length")});
    const auto noFinish = chat(QStringLiteral("@text open\n@finish none"));
    EXPECT_TRUE(noFinish.finishReasons().isEmpty());
    EXPECT_TRUE(noFinish.endsWithDone());
    EXPECT_EQ(chat(QStringLiteral("no directives at all")).content(), u"Scripted reply.");
}

TEST_F(DevServiceStream, ToolCallsOfOneRoundArriveInPieces) {
    const auto arguments = QStringLiteral("{\"path\":\"notes/a longer name.txt\",\"limit\":5}");
    const auto stream = chat(QStringLiteral("@text Let me look.\n@tool read_file ") + arguments +
                             QStringLiteral("\n@tool list_directory {\"path\":\".\"}"));
    EXPECT_EQ(stream.content(), u"Let me look.");
    EXPECT_EQ(stream.finishReasons(), QStringList{QStringLiteral("tool_calls")});

    QMap<int, QString> assembled;
    QMap<int, int> pieces;
    QMap<int, QJsonObject> heads;
    for (const auto& delta : toolCallDeltas(stream)) {
        const auto index = delta.value(QStringLiteral("index")).toInt(-1);
        if (!heads.contains(index))
            heads.insert(index, delta);
        else
            EXPECT_EQ(keysOf(delta),
                      (QSet<QString>{QStringLiteral("index"), QStringLiteral("function")}));
        assembled[index] += delta.value(QStringLiteral("function"))
                                .toObject()
                                .value(QStringLiteral("arguments"))
                                .toString();
        ++pieces[index];
    }
    ASSERT_EQ(heads.keys(), (QList<int>{0, 1}));
    EXPECT_EQ(heads[0].value(QStringLiteral("id")).toString(), u"call_1");
    EXPECT_EQ(heads[0].value(QStringLiteral("type")).toString(), u"function");
    EXPECT_EQ(heads[0].value(QStringLiteral("function")).toObject().value(QStringLiteral("name")),
              QStringLiteral("read_file"));
    EXPECT_EQ(heads[1].value(QStringLiteral("id")).toString(), u"call_2");
    EXPECT_EQ(assembled[0], arguments);
    EXPECT_EQ(assembled[1], u"{\"path\":\".\"}");
    EXPECT_GE(pieces[0], 4);
    EXPECT_GE(pieces[1], 2);

    // Explicit indexes and ids, for streams a client must refuse (a gap here).
    const auto gap = chat(QStringLiteral("@tool-at 0 a read_file {}\n@tool-at 2 b search {}"));
    QList<int> indexes;
    for (const auto& delta : toolCallDeltas(gap))
        if (delta.contains(QStringLiteral("id")))
            indexes.append(delta.value(QStringLiteral("index")).toInt());
    EXPECT_EQ(indexes, (QList<int>{0, 2}));
}

TEST_F(DevServiceStream, AfterToolResultsTheModelAnswersInWords) {
    const auto script = QStringLiteral("@tool read_file {\"path\":\"a\"}\n@then Done reading.");
    const auto followUp = [&](const QString& text) {
        return QJsonObject{
            {QStringLiteral("model"), QStringLiteral("kestrolan/scripted")},
            {QStringLiteral("messages"),
             QJsonArray{
                 QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                             {QStringLiteral("content"), text}},
                 QJsonObject{
                     {QStringLiteral("role"), QStringLiteral("assistant")},
                     {QStringLiteral("content"), QJsonValue::Null},
                     {QStringLiteral("tool_calls"),
                      QJsonArray{QJsonObject{
                          {QStringLiteral("id"), QStringLiteral("call_1")},
                          {QStringLiteral("type"), QStringLiteral("function")},
                          {QStringLiteral("function"),
                           QJsonObject{{QStringLiteral("name"), QStringLiteral("read_file")},
                                       {QStringLiteral("arguments"),
                                        QStringLiteral("{\"path\":\"a\"}")}}}}}}},
                 QJsonObject{{QStringLiteral("role"), QStringLiteral("tool")},
                             {QStringLiteral("content"), QStringLiteral("{\"status\":\"ok\"}")},
                             {QStringLiteral("tool_call_id"), QStringLiteral("call_1")}}}},
        };
    };
    const auto answered = chat(followUp(script));
    EXPECT_EQ(answered.content(), u"Done reading.");
    EXPECT_TRUE(toolCallDeltas(answered).isEmpty());
    EXPECT_EQ(answered.finishReasons(), QStringList{QStringLiteral("stop")});
    EXPECT_EQ(chat(followUp(QStringLiteral("@tool read_file {}"))).content(),
              u"Received 1 tool result.");
}

TEST_F(DevServiceStream, BillingStatesAndTheirCharges) {
    auto before = balance();
    const auto unresolved = chat(QStringLiteral("@usage 10 10\n@text x\n@billing unresolved"));
    EXPECT_EQ(unresolved.billingEvents().value(0),
              QJsonObject({{QStringLiteral("state"), QStringLiteral("unresolved")},
                           {QStringLiteral("prompt_tokens"), 10},
                           {QStringLiteral("completion_tokens"), 10}}));
    EXPECT_TRUE(unresolved.endsWithDone());
    EXPECT_EQ(balance(), before);

    const auto released = chat(QStringLiteral("@text x\n@billing released"));
    EXPECT_EQ(released.billingEvents().value(0),
              QJsonObject({{QStringLiteral("state"), QStringLiteral("released")}}));
    EXPECT_EQ(balance(), before);

    // 10 × 1.25 → 13, 10 × 10 → 100.
    const auto withoutAmount = chat(QStringLiteral("@usage 10 10\n@billing settled-no-amount"));
    const auto billing = withoutAmount.billingEvents().value(0);
    EXPECT_EQ(billing.value(QStringLiteral("state")).toString(), u"settled");
    EXPECT_FALSE(billing.contains(QStringLiteral("charged_usd")));
    EXPECT_EQ(balance(), before - 113);
    before -= 113;

    const auto silent = chat(QStringLiteral("@usage 10 10\n@billing none"));
    EXPECT_TRUE(silent.billingEvents().isEmpty());
    EXPECT_TRUE(silent.endsWithDone());
    EXPECT_EQ(balance(), before - 113);

    const auto noUsage = chat(QStringLiteral("@raw {not json\n@usage none"));
    EXPECT_TRUE(noUsage.usages().isEmpty());
    EXPECT_EQ(noUsage.billingEvents().size(), 1);
    bool rawSeen = false;
    for (const auto& event : noUsage.events)
        rawSeen = rawSeen || event.data == "{not json";
    EXPECT_TRUE(rawSeen);
    EXPECT_TRUE(service.adminAccount().value(QStringLiteral("balanced")).toBool());
}

TEST_F(DevServiceStream, ErrorEventFollowsTheBillingAndEndsTheBody) {
    const auto failed = chat(QStringLiteral("@text partial answer\n@error overloaded The model "
                                            "is overloaded."));
    EXPECT_EQ(failed.content(), u"partial answer");
    EXPECT_FALSE(failed.endsWithDone());
    ASSERT_GE(failed.events.size(), 2);
    EXPECT_EQ(failed.events[failed.events.size() - 2].name, "kestrolan.billing");
    EXPECT_EQ(failed.billingEvents().value(0).value(QStringLiteral("state")).toString(),
              u"settled");
    EXPECT_EQ(failed.events.last().name, "error");
    EXPECT_EQ(failed.events.last().json(),
              QJsonObject({{QStringLiteral("error"),
                            QJsonObject{{QStringLiteral("message"),
                                         QStringLiteral("The model is overloaded.")},
                                        {QStringLiteral("type"), QStringLiteral("server_error")},
                                        {QStringLiteral("code"), QStringLiteral("overloaded")},
                                        {QStringLiteral("param"), QJsonValue::Null}}}}));
    EXPECT_TRUE(failed.endsWithBlankLine);
    EXPECT_TRUE(failed.finishReasons().isEmpty());

    // Nothing generated: nothing charged.
    const auto before = balance();
    const auto early = chat(QStringLiteral("@error boom"));
    EXPECT_EQ(early.billingEvents().value(0),
              QJsonObject({{QStringLiteral("state"), QStringLiteral("released")}}));
    EXPECT_EQ(early.errorEvents()
                  .value(0)
                  .value(QStringLiteral("error"))
                  .toObject()
                  .value(QStringLiteral("message")),
              QStringLiteral("The scripted model failed."));
    EXPECT_EQ(balance(), before);
}

TEST_F(DevServiceStream, DropCutsTheConnectionAndTruncateEndsTheBody) {
    const auto dropped = timedChat(QStringLiteral("@text before\n@drop\n@text after"));
    EXPECT_FALSE(dropped.complete);
    EXPECT_TRUE(dropped.body.contains("before"));
    EXPECT_FALSE(dropped.body.contains("after"));

    const auto truncated = timedChat(QStringLiteral("@text before\n@truncate\n@text after"));
    EXPECT_TRUE(truncated.complete);
    const auto stream = EventStream::parse(truncated.body);
    EXPECT_EQ(stream.content(), u"before");
    EXPECT_FALSE(stream.endsWithDone());
    EXPECT_TRUE(stream.billingEvents().isEmpty());
    EXPECT_TRUE(stream.finishReasons().isEmpty());

    const auto account = service.waitForHeld(0, std::chrono::seconds(3));
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), startingBalance);
}

TEST_F(DevServiceStream, StallAndDelayPaceTheStream) {
    const auto stalled = timedChat(QStringLiteral("@text a\n@stall 400\n@text b"));
    ASSERT_TRUE(stalled.complete);
    qint64 first = -1;
    qint64 second = -1;
    for (const auto& [at, bytes] : stalled.pieces) {
        if (first < 0 && bytes.contains("\"content\":\"a\""))
            first = at;
        if (second < 0 && bytes.contains("\"content\":\"b\""))
            second = at;
    }
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    EXPECT_GE(second - first, 380);

    const auto paced = timedChat(QStringLiteral("@delay 60\n@text one two three"));
    ASSERT_TRUE(paced.complete);
    EXPECT_GE(paced.pieces.last().first - paced.pieces.first().first, 170);
    EXPECT_EQ(EventStream::parse(paced.body).content(), u"one two three");
}

TEST_F(DevServiceStream, CrlfFramingByteOrderMarkAndKeepAlives) {
    const auto reply = service.post(
        QStringLiteral("/api/chat"),
        scripted(QStringLiteral("@crlf\n@bom\n@keepalive 2\n@comment hi\n@text x")), token);
    ASSERT_EQ(reply.status, 200);
    ASSERT_TRUE(reply.body.startsWith("\xEF\xBB\xBF"
                                      "data: "));
    const auto stream = EventStream::parse(reply.body.sliced(3));
    EXPECT_EQ(stream.lfLines, 0);
    EXPECT_GT(stream.crlfLines, 10);
    EXPECT_EQ(stream.comments, 3);
    EXPECT_TRUE(reply.body.contains(": keep-alive\r\n\r\n"));
    EXPECT_EQ(stream.content(), u"x");
    EXPECT_TRUE(stream.endsWithDone());
}

TEST_F(DevServiceStream, RejectionsAndBadScriptsComeAsEnvelopes) {
    const auto rejected = service.post(
        QStringLiteral("/api/chat"),
        scripted(QStringLiteral("@text never\n@reject 429 rate_limited Slow down.")), token);
    EXPECT_EQ(rejected.status, 429);
    EXPECT_EQ(rejected.error().value(QStringLiteral("code")).toString(), u"rate_limited");
    EXPECT_EQ(rejected.error().value(QStringLiteral("message")).toString(), u"Slow down.");

    const auto unknown =
        service.post(QStringLiteral("/api/chat"), scripted(QStringLiteral("fine\n@bogus")), token);
    EXPECT_EQ(unknown.status, 400);
    EXPECT_EQ(unknown.error().value(QStringLiteral("code")).toString(), u"invalid_script");
    EXPECT_EQ(unknown.error().value(QStringLiteral("message")).toString(),
              u"Line 2: unknown directive @bogus.");
    const auto badStall =
        service.post(QStringLiteral("/api/chat"), scripted(QStringLiteral("@stall soon")), token);
    EXPECT_EQ(badStall.error().value(QStringLiteral("message")).toString(),
              u"Line 1: @stall needs milliseconds from 0 to 600000.");
    EXPECT_TRUE(service.adminAccount().value(QStringLiteral("holds")).toArray().isEmpty());
}

TEST_F(DevServiceStream, InvalidRequestsAreRefusedBeforeAnyHold) {
    const auto refuse = [&](const QJsonObject& body, int status, const QString& code,
                            const QString& param) {
        const auto reply = service.post(QStringLiteral("/api/chat"), body, token);
        EXPECT_EQ(reply.status, status) << reply.body.constData();
        EXPECT_EQ(reply.error().value(QStringLiteral("code")).toString(), code);
        EXPECT_EQ(reply.error().value(QStringLiteral("param")).toString(), param);
    };
    refuse(scripted(QStringLiteral("hi"), {{QStringLiteral("stream"), true}}), 400,
           QStringLiteral("invalid_request"), QStringLiteral("stream"));
    refuse(chatRequest(QStringLiteral("no/such-model"), QStringLiteral("hi")), 403,
           QStringLiteral("model_not_allowed"), QStringLiteral("model"));
    refuse(chatRequest(QStringLiteral("kestrolan/retired"), QStringLiteral("hi")), 403,
           QStringLiteral("model_not_allowed"), QStringLiteral("model"));
    refuse(
        chatRequest(QStringLiteral("kestrolan/echo"), QStringLiteral("hi"),
                    {{QStringLiteral("tools"),
                      QJsonArray{QJsonObject{
                          {QStringLiteral("type"), QStringLiteral("function")},
                          {QStringLiteral("function"),
                           QJsonObject{{QStringLiteral("name"), QStringLiteral("read_file")}}}}}}}),
        400, QStringLiteral("tools_not_supported"), QStringLiteral("tools"));
    refuse(scripted(QStringLiteral("hi"), {{QStringLiteral("max_tokens"), 128'001}}), 400,
           QStringLiteral("invalid_request"), QStringLiteral("max_tokens"));
    refuse(scripted(QStringLiteral("hi"), {{QStringLiteral("temperature"), 2.5}}), 400,
           QStringLiteral("invalid_request"), QStringLiteral("temperature"));
    auto nullContent = scripted(QStringLiteral("hi"));
    nullContent.insert(QStringLiteral("messages"),
                       QJsonArray{QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                                              {QStringLiteral("content"), QJsonValue::Null}}});
    refuse(nullContent, 400, QStringLiteral("invalid_request"),
           QStringLiteral("messages[0].content"));
    EXPECT_EQ(service.post(QStringLiteral("/api/chat"), QByteArray("{\"model\":"), token).status,
              400);
    // An empty list of tools is no tool request, even for a model without tool calling.
    const auto emptyTools =
        service.post(QStringLiteral("/api/chat"),
                     chatRequest(QStringLiteral("kestrolan/echo"), QStringLiteral("hi"),
                                 {{QStringLiteral("tools"), QJsonArray{}}}),
                     token);
    EXPECT_EQ(emptyTools.status, 200);
    EXPECT_EQ(service.adminAccount().value(QStringLiteral("holds")).toArray().size(), 1);
}

TEST_F(DevServiceStream, EchoStopsAtItsOutputAllowance) {
    const auto stream =
        chat(chatRequest(QStringLiteral("kestrolan/echo"), QStringLiteral("abcdefgh ijkl"),
                         {{QStringLiteral("max_tokens"), 2}}));
    EXPECT_EQ(stream.content(), u"abcdefgh");
    EXPECT_EQ(stream.finishReasons(), QStringList{QStringLiteral("length")});
    EXPECT_EQ(stream.usages().value(0).value(QStringLiteral("completion_tokens")).toInteger(), 2);
}
