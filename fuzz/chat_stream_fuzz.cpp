// The chat stream comes from the network: anything may arrive. Beyond not crashing, the parser
// and decoder must agree whatever the read sizes are: the input split at the points its first
// bytes choose yields the same events and the same failure as the input in one piece.
//
//   build-fuzz/bin/fuzz-chat-stream fuzz/corpus/chat_stream

#include "service/chat_stream_decoder.h"
#include "service/client_error.h"
#include "service/sse_parser.h"

#include <QList>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

using namespace kestrolan;

namespace {

struct Outcome {
    QList<ChatStreamEvent> events;
    std::optional<QString> error;
};

Outcome run(QByteArrayView stream, QList<qsizetype> cuts) {
    // Small limits so that the fuzzer reaches them.
    SSEParser parser(4096, 65536);
    ChatStreamDecoder decoder;
    Outcome outcome;
    try {
        qsizetype from = 0;
        cuts.append(stream.size());
        for (const qsizetype cut : cuts) {
            parser.feed(stream.sliced(from, cut - from), [&](const SSEEvent& event) {
                decoder.decode(event,
                               [&](ChatStreamEvent&& decoded) { outcome.events.append(decoded); });
            });
            from = cut;
        }
        decoder.finish();
    } catch (const Error& error) {
        outcome.error = error.description();
    }
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const QByteArrayView stream(reinterpret_cast<const char*>(data) + 2, qsizetype(size) - 2);
    QList<qsizetype> cuts;
    for (qsizetype at = data[0] % 7 + 1; at < stream.size(); at += data[1] % 61 + 1)
        cuts.append(at);

    const auto whole = run(stream, {});
    const auto pieces = run(stream, cuts);
    if (whole.events != pieces.events || whole.error != pieces.error) {
        std::fprintf(stderr, "invariant broken: split reads decode differently\n");
        std::abort();
    }
    return 0;
}
