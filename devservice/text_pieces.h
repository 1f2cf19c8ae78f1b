#pragma once

#include <QString>
#include <QStringList>

namespace kestrolan::devservice {

// How the built-in models cut text into stream pieces.
class TextPieces {
public:
    // Each word with the white space after it ("Hello, " "world"); leading white space stays
    // with the first word.
    static QStringList words(const QString& text);
    // Pieces of at most `maximumBytes` UTF-8 bytes, never splitting a character.
    static QStringList bytes(const QString& text, qsizetype maximumBytes);
    // The longest prefix of `text` of at most `maximumBytes` UTF-8 bytes, whole characters.
    static QString prefix(const QString& text, qsizetype maximumBytes);
};

} // namespace kestrolan::devservice
