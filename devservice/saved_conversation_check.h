#pragma once

#include <QByteArray>
#include <QString>

namespace kestrolan::devservice {

// The service's own reading of a conversation document before it is stored: the shape the
// client writes, the byte and turn limits. Returns the chat's title for the list.
class SavedConversationCheck {
public:
    static constexpr qsizetype maximumBytes = 1'048'576;
    static constexpr qsizetype maximumTurns = 1'000;

    // Throws ApiException (400, or 413 past the size limit).
    static QString check(const QByteArray& document);
};

} // namespace kestrolan::devservice
