// Page HTML is whatever a web server sends. Beyond not crashing, the text must be valid
// Unicode, never start or end with white space, never repeat a space, and the title must be
// one line.
//
//   build-fuzz/bin/fuzz-html-text -max_len=65536 -timeout=5

#include "web/html_text.h"

#include <QUrl>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using kestrolan::HtmlText;

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

bool isSeparator(QChar c) {
    return c == u' ' || c == u'\n';
}

// Leading, trailing and repeated separators, which only preformatted text may keep.
bool separatorsCollapsed(const QString& text) {
    if (text.isEmpty())
        return true;
    return !isSeparator(text.front()) && !isSeparator(text.back()) && !text.contains(u"  ") &&
           !text.contains(u" \n") && !text.contains(u"\n ") && !text.contains(u"\n\n\n") &&
           !text.contains(u'\t') && !text.contains(u'\r');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const QUrl base(QStringLiteral("https://example.org/dir/page.html"));
    const QByteArrayView html(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto page = HtmlText::fromHtml(html, base);

    require(page.text.isValidUtf16(), "text is valid UTF-16");
    require(page.title.isValidUtf16(), "title is valid UTF-16");
    require(!page.title.contains(u'\n') && separatorsCollapsed(page.title),
            "the title is one collapsed line");
    if (!html.toByteArray().toLower().contains("pre"))
        require(separatorsCollapsed(page.text), "white space collapses outside <pre>");
    return 0;
}
