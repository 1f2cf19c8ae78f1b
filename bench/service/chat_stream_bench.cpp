#include "service/chat_stream_decoder.h"
#include "service/sse_parser.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

using namespace kestrolan;

namespace {

constexpr qsizetype readSize = 16 * 1024; // what one network read typically hands over

// A chat reply of OpenAI-style text deltas, about 170 bytes per event, just under the 32 MiB
// stream limit, ending with a finish reason, usage and "[DONE]".
const QByteArray& replyStream() {
    static const QByteArray stream = [] {
        static const char* const words[] = {
            "Hello",   " world", ",",     " the",          " quick", " brown", " fox", " caf\u00e9",
            " \\n\\n", " jumps", " over", " \\\"lazy\\\"", " dog",   ".",      " 42",  " \u2014"};
        QByteArray out;
        out.reserve(SSEParser::chatMaxTotalBytes);
        const qsizetype budget = SSEParser::chatMaxTotalBytes - 4096;
        for (int i = 0; out.size() < budget; ++i) {
            out +=
                "data: {\"id\":\"chatcmpl-A1b2C3d4E5f6G7h8\",\"object\":\"chat.completion.chunk\","
                "\"created\":1718000000,\"model\":\"gpt-4o-mini\",\"choices\":[{\"index\":0,"
                "\"delta\":{\"content\":\"";
            out += words[i % std::size(words)];
            out += "\"},\"finish_reason\":null}]}\n\n";
        }
        out += "data: {\"id\":\"chatcmpl-A1b2C3d4E5f6G7h8\",\"object\":\"chat.completion.chunk\","
               "\"choices\":[{\"index\":0,\"delta\":{},\"finish_reason\":\"stop\"}],"
               "\"usage\":{\"prompt_tokens\":12,\"completion_tokens\":190000,"
               "\"total_tokens\":190012}}\n\ndata: [DONE]\n\n";
        return out;
    }();
    return stream;
}

template <typename OnEvent>
void feedInReads(SSEParser& parser, const QByteArray& stream, OnEvent&& onEvent) {
    for (qsizetype pos = 0; pos < stream.size(); pos += readSize)
        parser.feed(QByteArrayView(stream).sliced(pos, std::min(readSize, stream.size() - pos)),
                    onEvent);
}

void BM_SSEFraming(benchmark::State& state) {
    const QByteArray& stream = replyStream();
    for (auto _ : state) {
        SSEParser parser(SSEParser::chatMaxEventBytes, SSEParser::chatMaxTotalBytes);
        qsizetype dataBytes = 0;
        feedInReads(parser, stream, [&](const SSEEvent& event) { dataBytes += event.data.size(); });
        benchmark::DoNotOptimize(dataBytes);
    }
    state.SetBytesProcessed(state.iterations() * stream.size());
}
BENCHMARK(BM_SSEFraming)->Unit(benchmark::kMillisecond);

void BM_ChatStreamDecode(benchmark::State& state) {
    const QByteArray& stream = replyStream();
    for (auto _ : state) {
        SSEParser parser(SSEParser::chatMaxEventBytes, SSEParser::chatMaxTotalBytes);
        ChatStreamDecoder decoder;
        qsizetype textLength = 0;
        feedInReads(parser, stream, [&](const SSEEvent& event) {
            decoder.decode(event, [&](ChatStreamEvent&& result) {
                if (const auto* text = std::get_if<ChatStreamEvent::Text>(&result.value))
                    textLength += text->content.size();
            });
        });
        decoder.finish();
        benchmark::DoNotOptimize(textLength);
    }
    state.SetBytesProcessed(state.iterations() * stream.size());
}
BENCHMARK(BM_ChatStreamDecode)->Unit(benchmark::kMillisecond);

} // namespace
