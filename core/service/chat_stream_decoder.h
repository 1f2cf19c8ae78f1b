#pragma once

#include "service/api_error.h"
#include "service/chat_stream_event.h"
#include "service/sse_event.h"

#include <QByteArray>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>

namespace kestrolan {

// Turns the events of a chat reply stream into ChatStreamEvents: text deltas, the tool calls
// assembled from their fragments, finish reasons, token usage, the service's billing record and
// the end of the stream. Refuses malformed or oversized streams.
//
// Each decode either throws or hands all of the event's results to the sink, never part of
// them. Failures: ClientError::invalidResponse for data that does not decode or breaks the
// stream's rules, ClientError::streamTooLarge past a tool-call limit, ClientError::
// incompleteStream for "[DONE]" while tool calls are pending without the "tool_calls" finish
// reason, and the server's APIError for an "error" event. Once "[DONE]" has been decoded the
// stream is over: later events yield nothing and never fail.
class ChatStreamDecoder {
public:
    // Tool-call limits, in UTF-8 bytes.
    static constexpr qsizetype maxCallArgumentBytes = 65'536;
    static constexpr qsizetype maxTotalArgumentBytes = 131'072;
    static constexpr qsizetype maxNameBytes = 64;
    static constexpr qsizetype maxIDBytes = 256;
    static constexpr qsizetype maxCalls = 128; // tool calls in one round

    ChatStreamDecoder();
    ~ChatStreamDecoder();
    ChatStreamDecoder(ChatStreamDecoder&&) noexcept;
    ChatStreamDecoder& operator=(ChatStreamDecoder&&) noexcept;

    // Decodes one event and calls sink(ChatStreamEvent&&) for each result, in order.
    template <typename Sink>
    void decode(const SSEEvent& event, Sink&& sink) {
        using Callable = std::remove_reference_t<Sink>;
        decodeEvent(
            event,
            [](void* callable, ChatStreamEvent&& result) {
                (*static_cast<Callable*>(callable))(std::move(result));
            },
            const_cast<void*>(static_cast<const void*>(std::addressof(sink))));
    }

    // True once "[DONE]" has ended the stream; nothing after it needs reading.
    bool isDone() const { return m_isDone; }

    // Call when the body has ended. Throws the error event the stream carried, if any;
    // otherwise ClientError::incompleteStream unless "[DONE]" arrived and every tool call was
    // handed out.
    void finish() const;

private:
    using SinkThunk = void (*)(void* callable, ChatStreamEvent&& result);
    struct Fragment {
        QByteArray id;
        QByteArray type;
        QByteArray name;
        QByteArray arguments;
    };
    struct Json;

    void decodeEvent(const SSEEvent& event, SinkThunk sink, void* callable);
    void decodeDone(SinkThunk sink, void* callable);
    void decodeChunk(const QByteArray& data, SinkThunk sink, void* callable);

    bool m_isDone = false;
    std::map<qint64, Fragment> m_calls;
    std::optional<QByteArray> m_finishReason;
    bool m_emittedCalls = false;
    qsizetype m_argumentBytes = 0;
    std::optional<APIError> m_streamError;
    std::unique_ptr<Json> m_json; // the JSON parser and what it read, reused for every chunk
};

} // namespace kestrolan
