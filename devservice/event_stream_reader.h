#pragma once

#include <QByteArray>
#include <QList>
#include <optional>

namespace kestrolan::devservice {

// Reads an upstream server's event stream: lines end in LF, CR or CR LF; "data" fields of a
// block are joined with LF; comments and other fields are skipped.
class EventStreamReader {
public:
    struct Event {
        QByteArray name;
        QByteArray data;
    };

    static constexpr qsizetype maximumEventBytes = 4 * 1024 * 1024;

    // The events completed by `bytes`; empty when an event grows past the limit.
    std::optional<QList<Event>> feed(QByteArrayView bytes);

private:
    void consumeLine(QList<Event>& events);

    QByteArray m_line;
    QList<QByteArray> m_data;
    QByteArray m_name;
    qsizetype m_eventBytes = 0;
    bool m_skipLineFeed = false;
};

} // namespace kestrolan::devservice
