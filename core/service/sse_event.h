#pragma once

#include <QByteArray>
#include <optional>

namespace kestrolan {

// One complete block of a server-sent event stream. Both fields are UTF-8 bytes that the parser
// has already validated; they stay bytes so that the chat decoder can hand them to the JSON
// parser without a conversion.
struct SSEEvent {
    // The last "event" field of the block, if it had one.
    std::optional<QByteArray> event;
    // The block's "data" values joined with "\n".
    QByteArray data;

    bool operator==(const SSEEvent&) const = default;
};

} // namespace kestrolan
