#include "web/html_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <libxml/HTMLparser.h>
#include <libxml/parserInternals.h>
#include <memory>
#include <simdjson.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrolan {

namespace {

constexpr auto asciiSpaces = [] {
    std::array<bool, 256> spaces{};
    for (const unsigned char c : {' ', '\t', '\n', '\r', '\f'})
        spaces[c] = true;
    return spaces;
}();

bool isAsciiSpace(char c) {
    return asciiSpaces[static_cast<unsigned char>(c)];
}

std::string lowered(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (!isAsciiSpace(c))
            result.push_back(c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c);
    }
    return result;
}

std::string_view view(const xmlChar* text) {
    return text ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

enum Kind : std::uint16_t {
    dropped = 1 << 0,     // content is never page text
    block = 1 << 1,       // ends a line before and after
    foreign = 1 << 2,     // SVG and MathML roots
    leaves = 1 << 3,      // an HTML element that ends foreign content it appears in
    integration = 1 << 4, // foreign elements whose content is HTML again
    title = 1 << 5,
    anchor = 1 << 6,
    pre = 1 << 7,
    lineBreak = 1 << 8,
    cell = 1 << 9,
};

struct Named {
    std::string_view name;
    std::uint16_t kind;
};

// Sorted by name. The parser reports names in lower case.
constexpr Named kinds[] = {
    {"a", anchor},
    {"address", block},
    {"annotation-xml", integration},
    {"article", block},
    {"aside", block},
    {"b", leaves},
    {"big", leaves},
    {"blockquote", block | leaves},
    {"body", block | leaves},
    {"br", lineBreak | leaves},
    {"caption", block},
    {"center", leaves},
    {"code", leaves},
    {"dd", block | leaves},
    {"desc", integration},
    {"details", block},
    {"div", block | leaves},
    {"dl", block | leaves},
    {"dt", block | leaves},
    {"em", leaves},
    {"embed", leaves},
    {"fieldset", block},
    {"figcaption", block},
    {"figure", block},
    {"footer", block},
    {"foreignobject", integration},
    {"form", block},
    {"h1", block | leaves},
    {"h2", block | leaves},
    {"h3", block | leaves},
    {"h4", block | leaves},
    {"h5", block | leaves},
    {"h6", block | leaves},
    {"head", leaves},
    {"header", block},
    {"hr", block | leaves},
    {"i", leaves},
    {"iframe", dropped},
    {"img", leaves},
    {"legend", block},
    {"li", block | leaves},
    {"listing", leaves},
    {"main", block},
    {"math", dropped | foreign},
    {"menu", leaves},
    {"meta", leaves},
    {"mi", integration},
    {"mn", integration},
    {"mo", integration},
    {"ms", integration},
    {"mtext", integration},
    {"nav", block},
    {"nobr", leaves},
    {"noscript", dropped},
    {"object", dropped},
    {"ol", block | leaves},
    {"p", block | leaves},
    {"pre", block | pre | leaves},
    {"ruby", leaves},
    {"s", leaves},
    {"script", dropped},
    {"section", block},
    {"small", leaves},
    {"span", leaves},
    {"strike", leaves},
    {"strong", leaves},
    {"style", dropped},
    {"sub", leaves},
    {"summary", block},
    {"sup", leaves},
    {"svg", dropped | foreign},
    {"table", block | leaves},
    {"td", cell},
    {"template", dropped},
    {"th", cell},
    {"title", title | integration},
    {"tr", block},
    {"tt", leaves},
    {"u", leaves},
    {"ul", block | leaves},
    {"var", leaves},
};

static_assert(std::is_sorted(std::begin(kinds), std::end(kinds),
                             [](const Named& a, const Named& b) { return a.name < b.name; }));

std::uint16_t kindOf(std::string_view name) {
    const auto found =
        std::lower_bound(std::begin(kinds), std::end(kinds), name,
                         [](const Named& entry, std::string_view key) { return entry.name < key; });
    return found != std::end(kinds) && found->name == name ? found->kind : 0;
}

// Collects text with collapsed white space: separators are held back until the next visible
// character, so none leads, trails or doubles.
class TextWriter {
public:
    explicit TextWriter(std::size_t capacity) { m_out.reserve(capacity); }

    void text(std::string_view text) {
        m_afterCr = false;
        const char* at = text.data();
        const char* const end = at + text.size();
        while (at < end) {
            if (isAsciiSpace(*at)) {
                m_space = true;
                ++at;
                continue;
            }
            const char* const run = at;
            while (at < end && !isAsciiSpace(*at))
                ++at;
            flush();
            m_out.append(run, std::size_t(at - run));
        }
    }

    // Inside <pre>: white space kept as written, CR LF and CR as LF (a pair may be split
    // between two calls).
    void preformatted(std::string_view text) {
        for (const char c : text) {
            const bool afterCr = std::exchange(m_afterCr, c == '\r');
            if (c == '\n' && afterCr)
                continue;
            flush();
            m_out.push_back(c == '\r' ? '\n' : c);
        }
    }

    void blockBoundary() {
        m_breaks = std::max(m_breaks, 1);
        m_space = false;
        m_afterCr = false;
    }
    void lineBreak() {
        m_breaks = std::min(m_breaks + 1, 2);
        m_space = false;
        m_afterCr = false;
    }
    void space() { m_space = true; }

    std::size_t size() const { return m_out.size(); }
    // What was written from `offset` on, without the separator that came before it.
    std::string_view since(std::size_t offset) const {
        auto written = std::string_view(m_out).substr(offset);
        while (!written.empty() && (written.front() == ' ' || written.front() == '\n'))
            written.remove_prefix(1);
        return written;
    }
    QString toString() const { return QString::fromUtf8(m_out.data(), qsizetype(m_out.size())); }

private:
    void flush() {
        if (!m_out.empty()) {
            if (m_breaks > 0)
                m_out.append(std::size_t(m_breaks), '\n');
            else if (m_space)
                m_out.push_back(' ');
        }
        m_breaks = 0;
        m_space = false;
    }

    std::string m_out;
    int m_breaks = 0;
    bool m_space = false;
    bool m_afterCr = false;
};

// The target to show after a link's text, or nothing for links that lead nowhere useful.
std::string linkTarget(std::string_view href, const QUrl& base) {
    while (!href.empty() && isAsciiSpace(href.front()))
        href.remove_prefix(1);
    while (!href.empty() && isAsciiSpace(href.back()))
        href.remove_suffix(1);
    if (href.empty() || href.front() == '#')
        return {};
    const auto scheme = lowered(href.substr(0, 8));
    const bool plain =
        std::none_of(href.begin(), href.end(), [](char c) { return uchar(c) <= ' ' || c == 0x7f; });
    if (plain && (scheme.starts_with("http://") || scheme.starts_with("https://") ||
                  scheme.starts_with("mailto:")))
        return std::string(href);
    // Relative, or with white space that the URL encodes: only what resolves to a web
    // address is worth showing.
    const QUrl link(QString::fromUtf8(href.data(), qsizetype(href.size())));
    const auto resolved = base.isValid() ? base.resolved(link) : link;
    if (resolved.isRelative())
        return {};
    const auto resolvedScheme = resolved.scheme();
    if (resolvedScheme != u"http" && resolvedScheme != u"https")
        return {};
    return resolved.toEncoded().toStdString();
}

// Browsers stop nesting at 512 as well; past it a page is not worth reading, and the parser's
// end tag handling walks the open elements.
constexpr std::size_t maxNesting = 512;
constexpr std::size_t none = std::size_t(-1);

struct Frame {
    std::uint16_t kind;
    bool shown;        // opened outside dropped content, so its effects on the text apply
    std::size_t start; // output size when the element began, for links
    std::string href;
};

// Follows the parser's events, one frame per open element, the same stack the parser keeps.
class Reader {
public:
    Reader(htmlParserCtxtPtr context, std::size_t capacity, const QUrl& base)
        : m_context(context)
        , m_text(capacity)
        , m_title(64)
        , m_base(base) {}

    static void startElement(void* self, const xmlChar* name, const xmlChar** attributes) {
        static_cast<Reader*>(self)->start(name, attributes);
    }
    static void endElement(void* self, const xmlChar*) { static_cast<Reader*>(self)->end(); }
    static void characters(void* self, const xmlChar* text, int length) {
        static_cast<Reader*>(self)->write(
            std::string_view(reinterpret_cast<const char*>(text), std::size_t(length)));
    }

    // Ends what is still open, after the parser was stopped.
    void finish() {
        m_stopped = true;
        while (!m_stack.empty())
            close();
    }

    bool truncated() const { return m_truncated; }
    HtmlText result() const { return HtmlText{m_title.toString(), m_text.toString(), m_truncated}; }

private:
    void start(const xmlChar* name, const xmlChar** attributes) {
        if (m_stopped)
            return;
        m_leadingNewline = false;
        if (m_stack.size() >= maxNesting) {
            m_truncated = true;
            m_stopped = true;
            xmlStopParser(m_context);
            return;
        }
        const auto kind = kindFor(name);
        if ((kind & leaves) && m_dropFrom != none && (m_stack[m_dropFrom].kind & foreign) &&
            !inIntegrationPoint())
            m_dropFrom = none; // an unclosed <svg> or <math> ends where HTML resumes
        Frame frame{kind, m_dropFrom == none && m_titleFrom == none, m_text.size(), {}};
        if (frame.shown) {
            bool hidden = false;
            for (auto* attribute = attributes; attribute && attribute[0]; attribute += 2) {
                const auto attributeName = view(attribute[0]);
                const auto value = view(attribute[1]);
                if (attributeName == "hidden")
                    hidden = true;
                else if (attributeName == "aria-hidden")
                    hidden = hidden || lowered(value) == "true";
                else if (attributeName == "style") {
                    const auto style = lowered(value);
                    hidden = hidden || style.find("display:none") != std::string::npos ||
                             style.find("visibility:hidden") != std::string::npos;
                } else if (attributeName == "href" && (kind & anchor))
                    frame.href = value;
            }
            if (kind & title) {
                // Only the first title names the page; it is never part of the text.
                frame.shown = false;
                if (!m_haveTitle) {
                    m_haveTitle = true;
                    m_titleFrom = m_stack.size();
                } else {
                    m_dropFrom = m_stack.size();
                }
            } else if ((kind & dropped) || hidden) {
                frame.shown = false;
                m_dropFrom = m_stack.size();
            }
        }
        if (frame.shown) {
            if (kind & lineBreak)
                m_text.lineBreak();
            if (kind & block)
                m_text.blockBoundary();
            if (kind & pre) {
                ++m_preDepth;
                m_leadingNewline = true;
            }
        }
        m_stack.push_back(std::move(frame));
    }

    void end() {
        if (!m_stopped)
            close();
    }

    void close() {
        if (m_stack.empty())
            return;
        m_leadingNewline = false;
        const auto& frame = m_stack.back();
        const auto depth = m_stack.size() - 1;
        if (m_dropFrom == depth)
            m_dropFrom = none;
        if (m_titleFrom == depth)
            m_titleFrom = none;
        if (frame.shown) {
            if ((frame.kind & anchor) && m_text.size() > frame.start) {
                const auto target = linkTarget(frame.href, m_base);
                if (!target.empty() && m_text.since(frame.start) != target) {
                    m_text.space();
                    m_text.text("(");
                    m_text.preformatted(target);
                    m_text.preformatted(")");
                }
            }
            if (frame.kind & pre)
                --m_preDepth;
            if (frame.kind & block)
                m_text.blockBoundary();
            else if (frame.kind & cell)
                m_text.space();
        }
        m_stack.pop_back();
    }

    void write(std::string_view text) {
        if (m_stopped)
            return;
        if (m_titleFrom != none) {
            m_title.text(text);
            return;
        }
        if (m_dropFrom != none)
            return;
        if (m_preDepth == 0) {
            m_text.text(text);
            return;
        }
        // A newline right after <pre> is markup, not text.
        if (m_leadingNewline && !text.empty()) {
            m_leadingNewline = false;
            if (text.starts_with("\r\n"))
                text.remove_prefix(2);
            else if (text.front() == '\n' || text.front() == '\r')
                text.remove_prefix(1);
        }
        m_text.preformatted(text);
    }

    // The parser keeps one copy of each name for the whole page, so its address is its key.
    std::uint16_t kindFor(const xmlChar* name) {
        auto& slot = m_kinds[(reinterpret_cast<std::uintptr_t>(name) >> 3) % m_kinds.size()];
        if (slot.first != name)
            slot = {name, kindOf(view(name))};
        return slot.second;
    }

    bool inIntegrationPoint() const {
        for (auto i = m_dropFrom + 1; i < m_stack.size(); ++i) {
            if (m_stack[i].kind & integration)
                return true;
        }
        return false;
    }

    htmlParserCtxtPtr m_context;
    TextWriter m_text;
    TextWriter m_title;
    const QUrl& m_base;
    std::vector<Frame> m_stack;
    std::array<std::pair<const xmlChar*, std::uint16_t>, 64> m_kinds{};
    std::size_t m_dropFrom = none;  // the frame that hides everything within it
    std::size_t m_titleFrom = none; // the page title's frame while it is read
    int m_preDepth = 0;
    bool m_haveTitle = false;
    bool m_leadingNewline = false;
    bool m_truncated = false;
    bool m_stopped = false;
};

void ignoreError(void*, xmlErrorPtr) {}

void initialiseParser() {
    // Once per process, before any parse: the library's own set-up is not thread-safe.
    static const bool initialised = [] {
        xmlInitParser();
        return true;
    }();
    Q_UNUSED(initialised);
}

struct ContextDeleter {
    void operator()(htmlParserCtxtPtr context) const { htmlFreeParserCtxt(context); }
};

// The parser checks each attribute of a tag against all before it, so one tag with a hundred
// thousand of them would take minutes. Returns where the first tag with more than this many
// begins, reading tags as the parser does: a quote opens a value only right after '=', and a
// tag ends at the first '>' outside a value.
constexpr int maxAttributes = 256;

std::size_t attributeFlood(std::string_view html) {
    const auto size = html.size();
    std::size_t at = 0;
    while ((at = html.find('<', at)) != std::string_view::npos) {
        const auto start = at++;
        if (at >= size || !std::isalpha(static_cast<unsigned char>(html[at])))
            continue;
        int attributes = 0;
        bool inToken = true; // the tag's name comes first
        while (at < size && html[at] != '>') {
            const char c = html[at];
            if (isAsciiSpace(c)) {
                inToken = false;
                ++at;
            } else if (c == '=') {
                ++at;
                while (at < size && isAsciiSpace(html[at]))
                    ++at;
                if (at < size && (html[at] == '"' || html[at] == '\'')) {
                    const auto close = html.find(html[at], at + 1);
                    if (close == std::string_view::npos)
                        return size; // the rest is one unfinished value, to the parser too
                    at = close + 1;
                }
                inToken = true;
            } else {
                if (!inToken && ++attributes > maxAttributes)
                    return start;
                inToken = true;
                ++at;
            }
        }
    }
    return size;
}

// The parser takes invalid UTF-8 byte by byte and stops at a NUL inside a tag; such a page is
// read as the decoder repairs it, with U+FFFD for each NUL.
QByteArray repaired(QByteArrayView html) {
    auto text = QString::fromUtf8(html);
    text.replace(QChar(u'\0'), QChar(QChar::ReplacementCharacter));
    return text.toUtf8();
}

} // namespace

HtmlText HtmlText::fromHtml(QByteArrayView html, const QUrl& base) {
    initialiseParser();
    QByteArray repairedHtml;
    if (!simdjson::validate_utf8(html.data(), std::size_t(html.size())) ||
        std::memchr(html.data(), 0, std::size_t(html.size()))) {
        repairedHtml = repaired(html);
        html = repairedHtml;
    }
    const auto usable =
        std::min(attributeFlood(std::string_view(html.data(), std::size_t(html.size()))),
                 std::size_t(INT_MAX));
    const bool cut = usable < std::size_t(html.size());
    html.truncate(qsizetype(usable));
    if (html.isEmpty())
        return HtmlText{{}, {}, cut};

    std::unique_ptr<htmlParserCtxt, ContextDeleter> context(
        htmlCreateMemoryParserCtxt(html.data(), int(html.size())));
    if (!context)
        qFatal("out of memory");
    Reader reader(context.get(), std::size_t(html.size()) / 3, base);

    xmlSAXHandler handler{};
    handler.startElement = &Reader::startElement;
    handler.endElement = &Reader::endElement;
    handler.characters = &Reader::characters;
    handler.ignorableWhitespace = &Reader::characters;
    // No CDATA handler: script and style content arrives that way, and is never text.
    // The page's errors go to this context's own handler, never to the console or to a handler
    // set for the whole process.
    handler.initialized = XML_SAX2_MAGIC;
    handler.serror = &ignoreError;
    *context->sax = handler;
    context->userData = &reader;
    htmlCtxtUseOptions(context.get(), HTML_PARSE_RECOVER | HTML_PARSE_NOERROR |
                                          HTML_PARSE_NOWARNING | HTML_PARSE_NONET |
                                          HTML_PARSE_NOIMPLIED | HTML_PARSE_IGNORE_ENC);
    // Read as UTF-8 whatever the page declares: it arrives here as UTF-8. Without this the
    // parser guesses from the page's own declaration at the first non-ASCII byte.
    context->charset = XML_CHAR_ENCODING_UTF8;
    htmlParseDocument(context.get());
    reader.finish();

    auto result = reader.result();
    result.truncated = result.truncated || cut;
    return result;
}

} // namespace kestrolan
