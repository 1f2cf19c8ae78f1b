#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <exception>

namespace kestrolan {

// The JSON texts a tool call is answered with, as the model reads them.
struct ToolResult {
    static constexpr qsizetype maxBytes = 32'768;

    // A workspace result: compact JSON with sorted keys, bounded as a whole.
    static QString success(const QJsonObject& object);
    // An already serialised result: replaced as a whole when longer than maxBytes, otherwise
    // kept with any invalid UTF-8 repaired.
    static QString bounded(const QByteArray& serialized);
    // {"status":…,"message":…}: "denied" for revoked access, "uncertain" for an interrupted
    // edit, "failed" otherwise; the message is the error's own description.
    static QString failure(const std::exception& error);
    // The answer to a call that was interrupted and never answered.
    static QString cancelled();

    static QString truncated();
    static QString unencodable();
};

} // namespace kestrolan
