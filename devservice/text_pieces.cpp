#include "text_pieces.h"

namespace kestrolan::devservice {

namespace {

// The UTF-8 size of the character starting at `i` and its length in UTF-16 units.
std::pair<qsizetype, qsizetype> character(const QString& text, qsizetype i) {
    const auto c = text[i].unicode();
    if (QChar::isHighSurrogate(c) && i + 1 < text.size() &&
        QChar::isLowSurrogate(text[i + 1].unicode()))
        return {4, 2};
    if (c < 0x80)
        return {1, 1};
    if (c < 0x800)
        return {2, 1};
    return {3, 1};
}

} // namespace

QStringList TextPieces::words(const QString& text) {
    QStringList pieces;
    qsizetype start = 0;
    bool seenWord = false;
    for (qsizetype i = 1; i < text.size(); ++i) {
        seenWord = seenWord || !text[i - 1].isSpace();
        if (seenWord && text[i - 1].isSpace() && !text[i].isSpace()) {
            pieces.append(text.sliced(start, i - start));
            start = i;
        }
    }
    if (start < text.size())
        pieces.append(text.sliced(start));
    return pieces;
}

QStringList TextPieces::bytes(const QString& text, qsizetype maximumBytes) {
    QStringList pieces;
    qsizetype start = 0;
    qsizetype size = 0;
    for (qsizetype i = 0; i < text.size();) {
        const auto [utf8, units] = character(text, i);
        if (size > 0 && size + utf8 > maximumBytes) {
            pieces.append(text.sliced(start, i - start));
            start = i;
            size = 0;
        }
        size += utf8;
        i += units;
    }
    if (start < text.size())
        pieces.append(text.sliced(start));
    return pieces;
}

QString TextPieces::prefix(const QString& text, qsizetype maximumBytes) {
    qsizetype size = 0;
    for (qsizetype i = 0; i < text.size();) {
        const auto [utf8, units] = character(text, i);
        if (size + utf8 > maximumBytes)
            return text.first(i);
        size += utf8;
        i += units;
    }
    return text;
}

} // namespace kestrolan::devservice
