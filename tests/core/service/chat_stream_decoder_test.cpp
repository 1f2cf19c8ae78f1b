#include "service/chat_stream_decoder.h"
#include "service/client_error.h"
#include "service/sse_parser.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>
#include <ostream>

namespace kestrolan {

void PrintTo(const ChatStreamEvent& event, std::ostream* out) {
    std::visit(
        [out](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, ChatStreamEvent::Text>)
                *out << "text(" << value.content.toStdString() << ")";
            else if constexpr (std::is_same_v<T, ChatStreamEvent::ToolCalls>)
                for (const auto& call : value.calls)
                    *out << "call(" << call.id.toStdString() << ", " << call.type.toStdString()
                         << ", " << call.function.name.toStdString() << ", "
                         << call.function.arguments.toStdString() << ")";
            else if constexpr (std::is_same_v<T, ChatStreamEvent::Finish>)
                *out << "finish(" << value.reason.toStdString() << ")";
            else if constexpr (std::is_same_v<T, BillingUsage>)
                *out << "billing(" << value.summary().toStdString() << ")";
            else if constexpr (std::is_same_v<T, TokenUsage>)
                *out << "usage(" << value.promptTokens << ", " << value.completionTokens << ", "
                     << value.totalTokens << ")";
            else
                *out << "done";
        },
        event.value);
}

} // namespace kestrolan

using namespace kestrolan;
using namespace Qt::StringLiterals;

namespace {

using Kind = ClientError::Kind;

// A parser and decoder as the client wires them, recording what reaches the caller.
struct Stream {
    SSEParser parser{SSEParser::chatMaxEventBytes, SSEParser::chatMaxTotalBytes};
    ChatStreamDecoder decoder;
    QList<ChatStreamEvent> events;

    void feed(const QByteArray& bytes) {
        parser.feed(bytes, [this](const SSEEvent& event) {
            decoder.decode(event,
                           [this](ChatStreamEvent&& result) { events.append(std::move(result)); });
        });
    }
};

// The ClientError kind a call throws, or nullopt when it succeeds.
template <typename Call>
std::optional<Kind> failure(Call&& call) {
    try {
        call();
        return std::nullopt;
    } catch (const ClientError& error) {
        return error.kind();
    }
}

QByteArray data(const QJsonObject& chunk) {
    return "data: " + QJsonDocument(chunk).toJson(QJsonDocument::Compact) + "\n\n";
}

QByteArray choice(const QJsonObject& delta, const QJsonValue& finishReason = QJsonValue::Null) {
    return data({{QStringLiteral("object"), QStringLiteral("chat.completion.chunk")},
                 {QStringLiteral("choices"),
                  QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                         {QStringLiteral("delta"), delta},
                                         {QStringLiteral("finish_reason"), finishReason}}}}});
}

QByteArray content(const QString& text) {
    return choice({{QStringLiteral("content"), text}});
}

QByteArray finishWith(const QString& reason) {
    return choice({}, reason);
}

struct CallPart {
    int index = 0;
    std::optional<QString> id;
    std::optional<QString> type;
    std::optional<QString> name;
    std::optional<QString> arguments;
};

QByteArray calls(std::initializer_list<CallPart> parts) {
    QJsonArray deltas;
    for (const CallPart& part : parts) {
        QJsonObject delta{{QStringLiteral("index"), part.index}};
        QJsonObject function;
        if (part.id)
            delta.insert(QStringLiteral("id"), *part.id);
        if (part.type)
            delta.insert(QStringLiteral("type"), *part.type);
        if (part.name)
            function.insert(QStringLiteral("name"), *part.name);
        if (part.arguments)
            function.insert(QStringLiteral("arguments"), *part.arguments);
        if (part.name || part.arguments)
            delta.insert(QStringLiteral("function"), function);
        deltas.append(delta);
    }
    return choice({{QStringLiteral("tool_calls"), deltas}});
}

QByteArray oneCall(int index, const QString& id = QStringLiteral("call_1"),
                   const QString& name = QStringLiteral("read_file"),
                   const QString& arguments = QStringLiteral("{}")) {
    return calls({{index, id, QStringLiteral("function"), name, arguments}});
}

const QByteArray done = "data: [DONE]\n\n";

ToolCall call(const char* id, const char* name, const char* arguments) {
    return ToolCall{QString::fromUtf8(id),
                    QStringLiteral("function"),
                    {QString::fromUtf8(name), QString::fromUtf8(arguments)}};
}

// Feeds a whole stream and ends it; the kind of the first failure, if any.
std::optional<Kind> run(Stream& stream, const QByteArray& bytes) {
    return failure([&] {
        stream.feed(bytes);
        stream.decoder.finish();
    });
}

} // namespace

TEST(ChatStreamDecoder, DecodesTextFinishReasonAndUsage) {
    const QByteArray bytes =
        choice({{QStringLiteral("role"), QStringLiteral("assistant")},
                {QStringLiteral("content"), QString()}}) +
        content(QStringLiteral("Hel")) +
        "data: {\"id\":\"c1\",\"object\":\"chat.completion.chunk\",\"choices\":[{\"index\":0,"
        "\"delta\":{\"content\":\"lo \\u00e9\\n\"},\"logprobs\":null,\"finish_reason\":null}]}\n\n"
        // Nulls read as absent.
        "data: {\"object\":null,\"choices\":[{\"delta\":{\"content\":null,\"role\":null,"
        "\"tool_calls\":null},\"finish_reason\":null}],\"usage\":null}\n\n"
        "data: {\"choices\":[{\"delta\":null}]}\n\n" +
        finishWith(QStringLiteral("stop")) +
        "data: {\"choices\":[],\"usage\":{\"prompt_tokens\":12,\"completion_tokens\":"
        "18446744073709551615,\"total_tokens\":9007199254740993,\"details\":{}}}\n\n" +
        done;

    const QList<ChatStreamEvent> expected{
        ChatStreamEvent::text(QString()),
        ChatStreamEvent::text(QStringLiteral("Hel")),
        ChatStreamEvent::text(u"lo \u00e9\n"_s),
        ChatStreamEvent::finish(QStringLiteral("stop")),
        ChatStreamEvent::usage({12, 18446744073709551615u, 9007199254740993u}),
        ChatStreamEvent::done(),
    };
    Stream whole;
    EXPECT_EQ(run(whole, bytes), std::nullopt);
    EXPECT_EQ(whole.events, expected);

    Stream byteByByte;
    for (const char byte : bytes)
        byteByByte.feed(QByteArray(1, byte));
    EXPECT_EQ(byteByByte.events, expected);
}

TEST(ChatStreamDecoder, AssemblesToolCallsFromFragmentsAcrossChunks) {
    const QByteArray bytes = content(QStringLiteral("Let me look.")) +
                             calls({{0, u"call_"_s, u"function"_s, u"read_"_s, QString()}}) +
                             calls({{0, u"a"_s, {}, u"file"_s, u"{\"path\":"_s}}) +
                             calls({{0, {}, {}, {}, u"\"caf\u00e9.txt\"}"_s},
                                    {1, u"call_b"_s, {}, u"list_files"_s, u"{}"_s}}) +
                             finishWith(QStringLiteral("tool_calls")) + done;

    Stream stream;
    EXPECT_EQ(run(stream, bytes), std::nullopt);
    const QList<ChatStreamEvent> expected{
        ChatStreamEvent::text(QStringLiteral("Let me look.")),
        ChatStreamEvent::finish(QStringLiteral("tool_calls")),
        ChatStreamEvent::toolCalls({call("call_a", "read_file", "{\"path\":\"caf\xC3\xA9.txt\"}"),
                                    call("call_b", "list_files", "{}")}),
        ChatStreamEvent::done(),
    };
    EXPECT_EQ(stream.events, expected);
}

TEST(ChatStreamDecoder, EndsOnlyOnAProperDone) {
    const QByteArray toolCalls = finishWith(QStringLiteral("tool_calls"));
    const auto outcome = [](const QByteArray& bytes) {
        Stream stream;
        return run(stream, bytes);
    };

    EXPECT_EQ(outcome(content(u"hi"_s) + done), std::nullopt);
    // "tool_calls" with nothing to call, and calls without "tool_calls".
    EXPECT_EQ(outcome(toolCalls + done), Kind::invalidResponse);
    EXPECT_EQ(outcome(oneCall(0) + finishWith(u"stop"_s) + done), Kind::incompleteStream);
    EXPECT_EQ(outcome(oneCall(0) + done), Kind::incompleteStream);
    // Indexes must run 0, 1, 2 ... without a gap.
    EXPECT_EQ(outcome(oneCall(0, u"a"_s) + oneCall(2, u"c"_s) + toolCalls + done),
              Kind::invalidResponse);
    EXPECT_EQ(outcome(oneCall(1) + toolCalls + done), Kind::invalidResponse);
    EXPECT_EQ(outcome(oneCall(0, u"a"_s) + oneCall(1, u"b"_s) + toolCalls + done), std::nullopt);
    // Each call needs an id, a function type (or none) and a name.
    EXPECT_EQ(outcome(calls({{0, {}, {}, u"read_file"_s, u"{}"_s}}) + toolCalls + done),
              Kind::invalidResponse);
    EXPECT_EQ(outcome(calls({{0, u"a"_s, u"code"_s, u"read_file"_s, {}}}) + toolCalls + done),
              Kind::invalidResponse);
    EXPECT_EQ(outcome(calls({{0, u"a"_s, {}, {}, u"{}"_s}}) + toolCalls + done),
              Kind::invalidResponse);
    // Calls and their finish reason but no "[DONE]".
    EXPECT_EQ(outcome(oneCall(0) + toolCalls), Kind::incompleteStream);

    // A stream cut off after text: the text stays delivered, the end reports it.
    Stream cut;
    cut.feed(content(u"partial answer"_s) + "data: {\"choices\":[{\"delta\":{\"cont");
    EXPECT_EQ(cut.events, QList{ChatStreamEvent::text(u"partial answer"_s)});
    try {
        cut.decoder.finish();
        ADD_FAILURE() << "an unfinished stream was accepted";
    } catch (const ClientError& error) {
        EXPECT_EQ(error.description(), u"The stream ended before completion. Usage may still be "
                                       u"awaiting confirmation.");
    }
}

TEST(ChatStreamDecoder, NothingAfterTheFirstDoneReachesTheCaller) {
    // Handing the calls out twice would run an edit or a command twice.
    const QByteArray round = oneCall(0) + finishWith(u"tool_calls"_s) + done;
    const QList<ChatStreamEvent> expected{
        ChatStreamEvent::finish(u"tool_calls"_s),
        ChatStreamEvent::toolCalls({call("call_1", "read_file", "{}")}),
        ChatStreamEvent::done(),
    };
    const QByteArray late[] = {
        done,
        content(u"late text"_s),
        oneCall(0, u"call_1"_s) + finishWith(u"tool_calls"_s) + done,
        oneCall(1, u"call_2"_s) + finishWith(u"tool_calls"_s) + done,
        "event: kestrolan.billing\ndata: {\"state\":\"released\"}\n\n",
        "event: error\ndata: {\"message\":\"Too late.\"}\n\n",
        "data: not json\n\n",
    };
    for (const QByteArray& after : late) {
        Stream stream;
        EXPECT_EQ(run(stream, round + after), std::nullopt) << after.constData();
        EXPECT_EQ(stream.events, expected) << after.constData();
    }

    Stream text;
    EXPECT_EQ(run(text, content(u"hi"_s) + done + oneCall(0) + done), std::nullopt);
    EXPECT_EQ(text.events, (QList{ChatStreamEvent::text(u"hi"_s), ChatStreamEvent::done()}));
}

TEST(ChatStreamDecoder, DeltasAndToolCallsAllowOnlyTheirOwnKeys) {
    // The chunk and the choice around a delta may carry whatever the service adds.
    Stream loose;
    EXPECT_EQ(
        run(loose, "data: {\"id\":\"c1\",\"object\":\"chat.completion.chunk\",\"created\":1,"
                   "\"model\":\"m\",\"system_fingerprint\":\"fp\",\"service_tier\":null,"
                   "\"choices\":[{\"index\":0,\"logprobs\":null,\"native_finish_reason\":null,"
                   "\"delta\":{\"role\":\"assistant\",\"content\":\"hi\"}}]}\n\n" +
                       done),
        std::nullopt);
    EXPECT_EQ(loose.events, (QList{ChatStreamEvent::text(u"hi"_s), ChatStreamEvent::done()}));

    // Inside the delta, a tool call and its function, an unknown key is unreadable, even null.
    const char* const strict[] = {
        R"({"choices":[{"delta":{"content":"a","refusal":null}}]})",
        R"({"choices":[{"delta":{"reasoning_content":"thinking"}}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"index":0,"id":"c","extra":1}]}}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"index":0,"function":{"name":"f","strict":true}}]}}]})",
    };
    for (const char* json : strict) {
        Stream stream;
        EXPECT_EQ(failure([&] { stream.feed(QByteArray("data: ") + json + "\n\n"); }),
                  Kind::invalidResponse)
            << json;
        EXPECT_TRUE(stream.events.isEmpty()) << json;
    }
}

TEST(ChatStreamDecoder, EnforcesToolCallLimitsAtTheirEdges) {
    const QByteArray toolCalls = finishWith(QStringLiteral("tool_calls"));
    const auto outcome = [&](const QByteArray& bytes) {
        Stream stream;
        return run(stream, bytes + toolCalls + done);
    };
    const auto text = [](qsizetype size) { return QString(size, u'x'); };
    // Each value arrives in two fragments, so the limits hold for what is assembled.
    const auto split = [](int index, const QString& id, const QString& name,
                          const QString& arguments) -> QByteArray {
        const qsizetype half = arguments.size() / 2;
        return calls({{index,
                       id.left(id.size() / 2),
                       {},
                       name.left(name.size() / 2),
                       arguments.left(half)}}) +
               calls({{index,
                       id.mid(id.size() / 2),
                       {},
                       name.mid(name.size() / 2),
                       arguments.mid(half)}});
    };
    const QString id = u"call_1"_s;
    const QString name = u"read_file"_s;

    EXPECT_EQ(outcome(split(0, id, name, text(65'536))), std::nullopt);
    EXPECT_EQ(outcome(split(0, id, name, text(65'537))), Kind::streamTooLarge);
    EXPECT_EQ(outcome(split(0, u"a"_s, name, text(65'536)) + split(1, u"b"_s, name, text(65'536))),
              std::nullopt);
    EXPECT_EQ(outcome(split(0, u"a"_s, name, text(65'536)) + split(1, u"b"_s, name, text(65'536)) +
                      oneCall(2, u"c"_s, name, u"1"_s)),
              Kind::streamTooLarge);
    EXPECT_EQ(outcome(split(0, id, text(64), u"{}"_s)), std::nullopt);
    EXPECT_EQ(outcome(split(0, id, text(65), u"{}"_s)), Kind::streamTooLarge);
    EXPECT_EQ(outcome(split(0, text(256), name, u"{}"_s)), std::nullopt);
    EXPECT_EQ(outcome(split(0, text(257), name, u"{}"_s)), Kind::streamTooLarge);
    // Limits count UTF-8 bytes: 32 two-byte letters make a 64-byte name.
    EXPECT_EQ(outcome(split(0, id, QString(32, u'\u00e9'), u"{}"_s)), std::nullopt);
    EXPECT_EQ(outcome(split(0, id, QString(33, u'\u00e9'), u"{}"_s)), Kind::streamTooLarge);

    // At most 128 calls in one round, however small each one is.
    QByteArray many;
    for (int index = 0; index < 128; ++index)
        many += oneCall(index, u"c"_s + QString::number(index), name, u"{}"_s);
    EXPECT_EQ(outcome(many), std::nullopt);
    EXPECT_EQ(outcome(many + oneCall(128, u"x"_s, name, u"{}"_s)), Kind::streamTooLarge);
    EXPECT_EQ(outcome(many + calls({{127, {}, {}, {}, u"1"_s}})), std::nullopt);

    // A chunk that fails delivers none of its events, not even its text.
    Stream stream;
    const QByteArray chunk =
        "data: {\"choices\":[{\"delta\":{\"content\":\"visible\",\"tool_calls\":"
        "[{\"index\":0,\"id\":\"" +
        QByteArray(257, 'i') + "\"}]}}]}\n\n";
    EXPECT_EQ(failure([&] { stream.feed(chunk); }), Kind::streamTooLarge);
    EXPECT_TRUE(stream.events.isEmpty());
}

TEST(ChatStreamDecoder, SurfacesErrorEventsAndRethrowsThemAtTheEnd) {
    const QByteArray envelope =
        "event: error\ndata: {\"error\":{\"message\":\"Your credit ran out.\",\"type\":\"billing\","
        "\"code\":\"insufficient_credit\"}}\n\n";
    const QByteArray bare = "event: error\ndata: {\"message\":\"Model unavailable.\"}\n\n";

    for (const auto& [bytes, expected] :
         {std::pair{envelope,
                    APIError(u"Your credit ran out."_s, u"billing"_s, u"insufficient_credit"_s)},
          std::pair{bare, APIError(u"Model unavailable."_s)}}) {
        Stream stream;
        stream.feed(content(u"Sure"_s));
        try {
            stream.feed(bytes + done);
            ADD_FAILURE() << "the error event was not thrown";
        } catch (const APIError& error) {
            EXPECT_EQ(error, expected);
            EXPECT_EQ(error.description(), expected.message());
        }
        EXPECT_EQ(stream.events, QList{ChatStreamEvent::text(u"Sure"_s)});
        try {
            stream.decoder.finish();
            ADD_FAILURE() << "finish() forgot the error event";
        } catch (const APIError& error) {
            EXPECT_EQ(error, expected);
        }
    }

    // An error event that cannot be read is an unreadable response, not a stored error.
    Stream unreadable;
    EXPECT_EQ(failure([&] { unreadable.feed("event: error\ndata: {\"detail\":\"x\"}\n\n"); }),
              Kind::invalidResponse);
    EXPECT_EQ(failure([&] { unreadable.decoder.finish(); }), Kind::incompleteStream);
}

TEST(ChatStreamDecoder, ReportsBillingWithItsSummary) {
    const auto billing = [](const QByteArray& json) -> std::optional<BillingUsage> {
        Stream stream;
        stream.feed("event: kestrolan.billing\ndata: " + json + "\n\n");
        if (stream.events.size() != 1 || stream.events[0].kind() != ChatStreamEvent::Kind::billing)
            return std::nullopt;
        return std::get<BillingUsage>(stream.events[0].value);
    };

    const auto settled = billing(
        R"({"prompt_tokens":120,"completion_tokens":30,"charged_usd":"0.001230","state":"settled"})");
    ASSERT_TRUE(settled);
    EXPECT_EQ(*settled, (BillingUsage{120, 30, u"0.001230"_s, BillingUsage::State::settled}));
    EXPECT_EQ(settled->summary(), u"Charged $0.001230");
    EXPECT_EQ(BillingUsage::fromJson(settled->toJson()), *settled);

    EXPECT_EQ(billing(R"({"state":"settled"})")->summary(),
              u"Charge confirmation not received; see Activity.");
    EXPECT_EQ(billing(R"({"state":"unresolved","charged_usd":null})")->summary(),
              u"Usage pending; not charged unless confirmed");
    EXPECT_EQ(billing(R"({"state":"released","prompt_tokens":5})")->summary(),
              u"No charge. Credit reservation released.");

    for (const char* bad :
         {R"({"state":"paid"})", R"({"charged_usd":"1.00"})",
          R"({"state":"settled","charged_usd":0.5})", R"({"state":"settled","prompt_tokens":-1})",
          R"({"state":"settled","prompt_tokens":1.5})", R"(["settled"])", "settled"}) {
        Stream stream;
        EXPECT_EQ(failure([&] {
                      stream.feed(QByteArray("event: kestrolan.billing\ndata: ") + bad + "\n\n");
                  }),
                  Kind::invalidResponse)
            << bad;
    }
}

TEST(ChatStreamDecoder, RefusesMalformedChunks) {
    const char* const malformed[] = {
        "not json",
        "[1,2]",
        R"({"choices":[{"delta":{"content":"a"}},{"delta":{"content":"b"}}]})",
        R"({"choices":{}})",
        R"({"choices":[null]})",
        R"({"choices":[{"delta":{"content":5}}]})",
        R"({"choices":[{"delta":{"role":3,"content":"a"}}]})",
        R"({"choices":[{"delta":[]}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"id":"x"}]}}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"index":"0"}]}}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"index":0.5}]}}]})",
        R"({"choices":[{"delta":{"tool_calls":[{"index":0,"function":{"name":7}}]}}]})",
        R"({"choices":[{"delta":{"tool_calls":{"index":0}}}]})",
        R"({"choices":[{"finish_reason":1}]})",
        R"({"object":5})",
        R"({"usage":{"prompt_tokens":1,"completion_tokens":2}})",
        R"({"usage":{"prompt_tokens":-1,"completion_tokens":2,"total_tokens":1}})",
        R"({"usage":{"prompt_tokens":"1","completion_tokens":2,"total_tokens":3}})",
        R"({"choices":[{"delta":{"content":"a"}}]} {})",
        R"({"choices":[{"delta":{"content":"a"}}])",
    };
    for (const char* json : malformed) {
        Stream stream;
        EXPECT_EQ(failure([&] { stream.feed(QByteArray("data: ") + json + "\n\n"); }),
                  Kind::invalidResponse)
            << json;
        EXPECT_TRUE(stream.events.isEmpty()) << json;
    }
}
