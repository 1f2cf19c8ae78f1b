#include "chat_stream_emitter.h"

#include "api_response.h"

#include <thread>

namespace kestrolan::devservice {

ChatStreamEmitter::ChatStreamEmitter(ResponseStream& stream, const EventStreamWriter& writer)
    : m_stream(stream)
    , m_writer(writer) {}

bool ChatStreamEmitter::write(const QByteArray& bytes) {
    if (m_failed || m_stream.stopping())
        return false;
    if (!m_stream.write(bytes))
        m_failed = true;
    return !m_failed;
}

bool ChatStreamEmitter::paced(const QByteArray& bytes) {
    if (m_pace.count() > 0 && !pause(m_pace))
        return false;
    return write(bytes);
}

bool ChatStreamEmitter::content(const QString& text) {
    m_generatedBytes += std::uint64_t(text.toUtf8().size());
    return paced(m_writer.contentChunk(text));
}

bool ChatStreamEmitter::toolCallStart(int index, const QString& id, const QString& name) {
    m_startedCalls = true;
    m_generatedBytes += std::uint64_t(name.toUtf8().size());
    return paced(m_writer.toolCallChunk(index, id, name, QString()));
}

bool ChatStreamEmitter::toolCallArguments(int index, const QString& piece) {
    m_generatedBytes += std::uint64_t(piece.toUtf8().size());
    return paced(m_writer.toolCallChunk(index, std::nullopt, std::nullopt, piece));
}

bool ChatStreamEmitter::comment(const QString& text) {
    return paced(m_writer.comment(text));
}

bool ChatStreamEmitter::rawData(const QByteArray& data) {
    return paced(m_writer.rawData(data));
}

bool ChatStreamEmitter::pause(std::chrono::milliseconds duration) {
    // In slices, so a shutdown does not wait for a long stall.
    const auto until = std::chrono::steady_clock::now() + duration;
    for (;;) {
        if (m_failed || m_stream.stopping())
            return false;
        const auto left = until - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero())
            return true;
        std::this_thread::sleep_for(
            std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(20)));
    }
}

} // namespace kestrolan::devservice
