#pragma once

#include "event_stream_writer.h"
#include "generation.h"

#include <QByteArray>
#include <chrono>
#include <cstdint>

namespace kestrolan::devservice {

class ResponseStream;

// The sink a model writes to: formats each piece as an event, writes it to the client at once
// and counts the bytes the reply generated.
class ChatStreamEmitter : public GenerationSink {
public:
    ChatStreamEmitter(ResponseStream& stream, const EventStreamWriter& writer);

    bool content(const QString& text) override;
    bool toolCallStart(int index, const QString& id, const QString& name) override;
    bool toolCallArguments(int index, const QString& piece) override;
    bool comment(const QString& text) override;
    bool rawData(const QByteArray& data) override;
    bool pause(std::chrono::milliseconds duration) override;
    void setPace(std::chrono::milliseconds delay) override { m_pace = delay; }

    // Writes without pacing or counting (the stream's head and tail).
    bool write(const QByteArray& bytes);

    bool clientGone() const { return m_failed; }
    std::uint64_t generatedBytes() const { return m_generatedBytes; }
    bool generatedAnything() const { return m_generatedBytes > 0 || m_startedCalls; }

private:
    bool paced(const QByteArray& bytes);

    ResponseStream& m_stream;
    const EventStreamWriter& m_writer;
    std::chrono::milliseconds m_pace{0};
    std::uint64_t m_generatedBytes = 0;
    bool m_startedCalls = false;
    bool m_failed = false;
};

} // namespace kestrolan::devservice
