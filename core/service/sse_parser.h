#pragma once

#include "service/sse_event.h"

#include <QByteArray>
#include <QByteArrayView>
#include <memory>
#include <type_traits>

namespace kestrolan {

// Incremental parser of a server-sent event stream. Feed it the body in chunks of any size; it
// reports each complete block as an SSEEvent. Line ends are CR, LF or CR LF (also when the CR
// and the LF arrive in different chunks); a byte-order mark is dropped from the first line only;
// every line must be valid UTF-8. Each byte counts toward the stream limit and each byte of a
// block, line ends included, toward the block limit; a block's count restarts after the empty
// line that ends it, so the LF of a CR LF ending that empty line counts toward the stream only.
//
// Failures throw ClientError: streamTooLarge past either limit, invalidResponse for a line that
// is not UTF-8. Events reported before the failure stay reported. A parser that threw is done:
// do not feed it again. Not reentrant: onEvent must not feed the same parser.
class SSEParser {
public:
    // The limits of a chat reply: 1 MiB per block, 32 MiB per stream.
    static constexpr qsizetype chatMaxEventBytes = 1'048'576;
    static constexpr qsizetype chatMaxTotalBytes = 33'554'432;

    SSEParser(qsizetype maxEventBytes, qsizetype maxTotalBytes);

    // Consumes `bytes` and calls onEvent(const SSEEvent&) for every block it completes. The
    // event is only valid during the call (its buffer is reused for the next block).
    template <typename OnEvent>
    void feed(QByteArrayView bytes, OnEvent&& onEvent) {
        using Callable = std::remove_reference_t<OnEvent>;
        feedBytes(
            bytes,
            [](void* callable, const SSEEvent& event) {
                (*static_cast<Callable*>(callable))(event);
            },
            const_cast<void*>(static_cast<const void*>(std::addressof(onEvent))));
    }

private:
    using EventThunk = void (*)(void* callable, const SSEEvent& event);

    void feedBytes(QByteArrayView bytes, EventThunk onEvent, void* callable);
    void count(qsizetype bytes);
    void consumeLine(QByteArrayView line, bool asciiOnly, EventThunk onEvent, void* callable);

    QByteArray m_line; // the start of a line whose end has not arrived yet
    SSEEvent m_block;  // event name and the data lines joined so far
    bool m_hasData = false;
    bool m_skipLF = false;
    bool m_firstLine = true;
    qsizetype m_eventBytes = 0;
    qsizetype m_totalBytes = 0;
    qsizetype m_maxEventBytes;
    qsizetype m_maxTotalBytes;
};

} // namespace kestrolan
