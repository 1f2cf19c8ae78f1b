#include "service/sse_parser.h"

#include "service/client_error.h"

#include <bit>
#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kestrolan {

namespace {

constexpr QByteArrayView byteOrderMark("\xEF\xBB\xBF");

[[noreturn]] Q_DECL_COLD_FUNCTION void fail(ClientError::Kind kind) {
    throw ClientError(kind);
}

struct LineEnd {
    qsizetype pos;  // of the first CR or LF, or the end of the chunk
    bool asciiOnly; // no byte before it is above 0x7F
};

// One pass finds the end of the line and whether the line is plain ASCII, which is valid UTF-8:
// chat lines nearly always are, so the full UTF-8 check is left for the rest.
LineEnd findLineEnd(const char* data, qsizetype from, qsizetype size) {
    qsizetype i = from;
    unsigned high = 0;
#if defined(__SSE2__)
    const __m128i lf = _mm_set1_epi8('\n');
    const __m128i cr = _mm_set1_epi8('\r');
    __m128i seen = _mm_setzero_si128();
    for (; size - i >= 16; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        const auto ends = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(bytes, lf), _mm_cmpeq_epi8(bytes, cr))));
        if (ends != 0) {
            const int at = std::countr_zero(ends);
            const unsigned before = (1u << at) - 1;
            high = static_cast<unsigned>(_mm_movemask_epi8(seen)) |
                   (static_cast<unsigned>(_mm_movemask_epi8(bytes)) & before);
            return {i + at, high == 0};
        }
        seen = _mm_or_si128(seen, bytes);
    }
    high = static_cast<unsigned>(_mm_movemask_epi8(seen));
#endif
    for (; i < size; ++i) {
        const char byte = data[i];
        if (byte == '\n' || byte == '\r')
            break;
        high |= static_cast<unsigned char>(byte) & 0x80u;
    }
    return {i, high == 0};
}

std::string_view view(QByteArrayView bytes) {
    return {bytes.data(), static_cast<size_t>(bytes.size())};
}

void appendTo(QByteArray& target, QByteArrayView bytes) {
    if (bytes.isEmpty())
        return; // an empty view may carry a null pointer, which memcpy must not see
    const qsizetype old = target.size();
    target.resize(old + bytes.size());
    std::memcpy(target.data() + old, bytes.data(), static_cast<size_t>(bytes.size()));
}

} // namespace

SSEParser::SSEParser(qsizetype maxEventBytes, qsizetype maxTotalBytes)
    : m_maxEventBytes(maxEventBytes)
    , m_maxTotalBytes(maxTotalBytes) {}

inline void SSEParser::count(qsizetype bytes) {
    // Both counters fail with the same error and nothing is reported within a line, so a run of
    // bytes can be counted at once without changing where or how the stream fails.
    m_totalBytes += bytes;
    m_eventBytes += bytes;
    if (m_totalBytes > m_maxTotalBytes || m_eventBytes > m_maxEventBytes) [[unlikely]]
        fail(ClientError::Kind::streamTooLarge);
}

void SSEParser::feedBytes(QByteArrayView bytes, EventThunk onEvent, void* callable) {
    const char* const data = bytes.data();
    const qsizetype size = bytes.size();
    qsizetype pos = 0;
    while (pos < size) {
        if (m_skipLF) {
            m_skipLF = false;
            if (data[pos] == '\n') {
                // The LF of a CR LF pair counts toward the stream but not the block.
                if (++m_totalBytes > m_maxTotalBytes)
                    fail(ClientError::Kind::streamTooLarge);
                ++pos;
                continue;
            }
        }
        const LineEnd end = findLineEnd(data, pos, size);
        const QByteArrayView piece(data + pos, end.pos - pos);
        if (end.pos == size) {
            count(piece.size());
            appendTo(m_line, piece);
            return;
        }
        count(piece.size() + 1);
        m_skipLF = data[end.pos] == '\r';
        pos = end.pos + 1;
        if (m_line.isEmpty()) {
            consumeLine(piece, end.asciiOnly, onEvent, callable);
        } else {
            appendTo(m_line, piece);
            consumeLine(m_line, false, onEvent, callable);
            m_line.resize(0); // keeps the capacity for the next split line
        }
    }
}

void SSEParser::consumeLine(QByteArrayView line, bool asciiOnly, EventThunk onEvent,
                            void* callable) {
    if (!asciiOnly && !line.isValidUtf8())
        fail(ClientError::Kind::invalidResponse);
    if (m_firstLine) [[unlikely]] {
        m_firstLine = false;
        if (line.startsWith(byteOrderMark))
            line = line.sliced(byteOrderMark.size());
    }

    if (line.isEmpty()) {
        m_eventBytes = 0;
        if (m_hasData)
            onEvent(callable, m_block);
        m_hasData = false;
        m_block.event.reset();
        m_block.data.resize(0); // keeps the capacity unless the receiver kept a copy
        return;
    }

    const std::string_view text = view(line);
    const size_t colon = text.find(':');
    const std::string_view name = text.substr(0, colon);
    std::string_view value = colon == text.npos ? std::string_view() : text.substr(colon + 1);
    if (value.starts_with(' '))
        value.remove_prefix(1);

    if (name == "data") {
        if (m_hasData)
            m_block.data.append('\n');
        appendTo(m_block.data, QByteArrayView(value.data(), static_cast<qsizetype>(value.size())));
        m_hasData = true;
    } else if (name == "event") {
        m_block.event = QByteArray(value.data(), static_cast<qsizetype>(value.size()));
    }
}

} // namespace kestrolan
