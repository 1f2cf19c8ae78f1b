#include "event_stream_reader.h"

namespace kestrolan::devservice {

std::optional<QList<EventStreamReader::Event>> EventStreamReader::feed(QByteArrayView bytes) {
    QList<Event> events;
    for (const auto byte : bytes) {
        if (m_skipLineFeed) {
            m_skipLineFeed = false;
            if (byte == '\n')
                continue;
        }
        if (++m_eventBytes > maximumEventBytes)
            return std::nullopt;
        if (byte == '\r' || byte == '\n') {
            m_skipLineFeed = byte == '\r';
            consumeLine(events);
        } else {
            m_line.append(byte);
        }
    }
    return events;
}

void EventStreamReader::consumeLine(QList<Event>& events) {
    auto line = std::exchange(m_line, {});
    if (line.isEmpty()) {
        if (!m_data.isEmpty())
            events.append(Event{m_name, m_data.join('\n')});
        m_data.clear();
        m_name.clear();
        m_eventBytes = 0;
        return;
    }
    const auto colon = line.indexOf(':');
    const auto field = colon < 0 ? line : line.first(colon);
    auto value = colon < 0 ? QByteArray() : line.sliced(colon + 1);
    if (value.startsWith(' '))
        value.remove(0, 1);
    if (field == "data")
        m_data.append(value);
    else if (field == "event")
        m_name = value;
}

} // namespace kestrolan::devservice
