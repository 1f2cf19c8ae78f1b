#include "tools/tool_text.h"

namespace kestrolan {

namespace {

bool dropped(char32_t scalar) {
    if (scalar == U'\t' || scalar == U'\n')
        return false;
    return scalar < 0x20 || scalar == 0x7F || (scalar >= 0x80 && scalar <= 0x9F) ||
           (scalar >= 0x202A && scalar <= 0x202E) || (scalar >= 0x2066 && scalar <= 0x2069);
}

} // namespace

QString ToolText::escaped(QStringView text) {
    QString output;
    output.reserve(text.size());
    bool inEscape = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t scalar = text[i].unicode();
        if (QChar::isHighSurrogate(scalar) && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            scalar = QChar::surrogateToUcs4(text[i], text[i + 1]);
            ++i;
        } else if (QChar::isSurrogate(scalar))
            scalar = QChar::ReplacementCharacter; // a lone half is not a character
        if (scalar == 0x1B) {
            inEscape = true;
            continue;
        }
        if (inEscape) {
            // Parameter and intermediate bytes keep the sequence open; its final byte ends it.
            inEscape = scalar < 0x40 || scalar > 0x7E || scalar == U'[';
            continue;
        }
        if (!dropped(scalar))
            output.append(QChar::fromUcs4(scalar));
    }
    return output;
}

} // namespace kestrolan
