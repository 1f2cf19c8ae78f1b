#include "conversation/saved_conversation.h"
#include "tools/tool_operation.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <benchmark/benchmark.h>

using namespace kestrolan;

namespace {

// A long chat just under the saved-chat limit: turns whose replies read files over two tool
// rounds, with text and charge lines, as a tool-heavy session leaves it.
const SavedConversation& longChat() {
    static const SavedConversation chat = [] {
        SavedConversation c;
        c.version = 2;
        c.title = QStringLiteral("Refactoring the parser");
        c.slots = {QStringLiteral("kestrolan/echo")};
        c.settings = {QStringLiteral("You are terse."), QStringLiteral("2048"),
                      QStringLiteral("0.2")};
        const QString paragraph = QStringLiteral(
            "The parser keeps its state between reads, so a field split across two network "
            "reads is joined before it is decoded. Caf\u00e9 \u2014 \"quoted\" text.\n");
        for (int i = 0;; ++i) {
            SavedConversation::Turn turn;
            turn.user = u"Look at src/file" + QString::number(i) + u".cpp and explain it.";
            SavedConversation::Reply reply;
            reply.model = QStringLiteral("kestrolan/echo");
            reply.text = paragraph.repeated(6);
            reply.finishReason = QStringLiteral("stop");
            reply.meta = {{QStringLiteral("Total charged $0.004211"), false},
                          {QStringLiteral("Each inference round is billed separately."), false}};
            QList<ChatMessage> exchanges;
            for (int round = 0; round < 2; ++round) {
                QList<ToolCall> calls;
                for (int k = 0; k < 2; ++k) {
                    const QString id = u"call_" + QString::number(i) + u'_' +
                                       QString::number(round) + u'_' + QString::number(k);
                    calls.append(ToolCall{
                        id,
                        QStringLiteral("function"),
                        {QStringLiteral("read_file"), u"{\"path\":\"src/file" + QString::number(k) +
                                                          u".cpp\",\"offset\":0,\"limit\":400}"}});
                    exchanges.append(ChatMessage{.role = ChatMessage::Role::tool,
                                                 .content = paragraph.repeated(2),
                                                 .toolCallID = id});
                }
                exchanges.insert(
                    exchanges.size() - 2,
                    ChatMessage{.role = ChatMessage::Role::assistant, .toolCalls = calls});
            }
            reply.exchanges = exchanges;
            turn.replies = {reply};
            c.turns.append(turn);
            if (c.encoded().size() > SavedConversation::maxEncodedBytes - 8 * 1024) {
                c.turns.removeLast();
                break;
            }
        }
        return c;
    }();
    return chat;
}

void BM_SavedConversationLoad(benchmark::State& state) {
    const QByteArray body = longChat().encoded();
    for (auto _ : state) {
        auto loaded = SavedConversation::decode(body);
        benchmark::DoNotOptimize(loaded);
    }
    state.SetBytesProcessed(state.iterations() * body.size());
    state.counters["turns"] = double(longChat().turns.size());
}
BENCHMARK(BM_SavedConversationLoad)->Unit(benchmark::kMillisecond);

void BM_SavedConversationEncode(benchmark::State& state) {
    const auto& chat = longChat();
    qsizetype bytes = 0;
    for (auto _ : state) {
        const auto body = chat.encoded();
        bytes = body.size();
        benchmark::DoNotOptimize(body);
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_SavedConversationEncode)->Unit(benchmark::kMillisecond);

void BM_ToolOperationDecode(benchmark::State& state) {
    const QString content = QStringLiteral("int main() { return 0; }\n").repeated(160);
    const ToolCall call{
        QStringLiteral("call_1"),
        QStringLiteral("function"),
        {QStringLiteral("edit_file"),
         QString::fromUtf8(
             QJsonDocument(QJsonObject{{QStringLiteral("path"), QStringLiteral("src/main.cpp")},
                                       {QStringLiteral("expected_hash"), QString(64, u'a')},
                                       {QStringLiteral("content"), content},
                                       {QStringLiteral("create"), false}})
                 .toJson(QJsonDocument::Compact))}};
    for (auto _ : state) {
        ToolOperation operation(call);
        benchmark::DoNotOptimize(operation);
    }
    state.SetBytesProcessed(state.iterations() * call.function.arguments.toUtf8().size());
}
BENCHMARK(BM_ToolOperationDecode);

} // namespace
