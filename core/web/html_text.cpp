#include "web/html_text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <gumbo.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrolan {

namespace {

bool isAsciiSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.substr(0, prefix.size()) == prefix;
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

// Elements whose content is never page text.
bool isDropped(GumboTag tag) {
    switch (tag) {
    case GUMBO_TAG_SCRIPT:
    case GUMBO_TAG_STYLE:
    case GUMBO_TAG_TEMPLATE:
    case GUMBO_TAG_NOSCRIPT:
    case GUMBO_TAG_IFRAME:
    case GUMBO_TAG_OBJECT:
    case GUMBO_TAG_SVG:
    case GUMBO_TAG_MATH:
        return true;
    default:
        return false;
    }
}

bool isBlock(GumboTag tag) {
    switch (tag) {
    case GUMBO_TAG_ADDRESS:
    case GUMBO_TAG_ARTICLE:
    case GUMBO_TAG_ASIDE:
    case GUMBO_TAG_BLOCKQUOTE:
    case GUMBO_TAG_BODY:
    case GUMBO_TAG_CAPTION:
    case GUMBO_TAG_DD:
    case GUMBO_TAG_DETAILS:
    case GUMBO_TAG_DIV:
    case GUMBO_TAG_DL:
    case GUMBO_TAG_DT:
    case GUMBO_TAG_FIELDSET:
    case GUMBO_TAG_FIGCAPTION:
    case GUMBO_TAG_FIGURE:
    case GUMBO_TAG_FOOTER:
    case GUMBO_TAG_FORM:
    case GUMBO_TAG_H1:
    case GUMBO_TAG_H2:
    case GUMBO_TAG_H3:
    case GUMBO_TAG_H4:
    case GUMBO_TAG_H5:
    case GUMBO_TAG_H6:
    case GUMBO_TAG_HEADER:
    case GUMBO_TAG_HR:
    case GUMBO_TAG_LEGEND:
    case GUMBO_TAG_LI:
    case GUMBO_TAG_MAIN:
    case GUMBO_TAG_NAV:
    case GUMBO_TAG_OL:
    case GUMBO_TAG_P:
    case GUMBO_TAG_PRE:
    case GUMBO_TAG_SECTION:
    case GUMBO_TAG_SUMMARY:
    case GUMBO_TAG_TABLE:
    case GUMBO_TAG_TR:
    case GUMBO_TAG_UL:
        return true;
    default:
        return false;
    }
}

std::string_view attribute(const GumboElement& element, const char* name) {
    const auto* found = gumbo_get_attribute(&element.attributes, name);
    return found ? std::string_view(found->value) : std::string_view();
}

// Hidden by the page itself: what a reader never sees is no text of the page.
bool isHidden(const GumboElement& element) {
    if (gumbo_get_attribute(&element.attributes, "hidden"))
        return true;
    if (lowered(attribute(element, "aria-hidden")) == "true")
        return true;
    const auto style = lowered(attribute(element, "style"));
    return style.find("display:none") != std::string::npos ||
           style.find("visibility:hidden") != std::string::npos;
}

// Collects text with collapsed white space: separators are held back until the next visible
// character, so none leads, trails or doubles.
class TextWriter {
public:
    explicit TextWriter(std::size_t capacity) { m_out.reserve(capacity); }

    void text(std::string_view text) {
        for (const char c : text) {
            if (isAsciiSpace(c)) {
                m_space = true;
            } else {
                flush();
                m_out.push_back(c);
            }
        }
    }

    // Inside <pre>: white space kept as written, CR LF as LF.
    void preformatted(std::string_view text) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
                continue;
            flush();
            m_out.push_back(c == '\r' ? '\n' : c);
        }
    }

    void blockBoundary() {
        m_breaks = std::max(m_breaks, 1);
        m_space = false;
    }
    void lineBreak() {
        m_breaks = std::min(m_breaks + 1, 2);
        m_space = false;
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
    std::string take() { return std::move(m_out); }

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
    if (plain && (startsWith(scheme, "http://") || startsWith(scheme, "https://") ||
                  startsWith(scheme, "mailto:")))
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

std::string collapsed(const GumboNode& node) {
    TextWriter writer(64);
    for (unsigned i = 0; i < node.v.element.children.length; ++i) {
        const auto* child = static_cast<const GumboNode*>(node.v.element.children.data[i]);
        if (child->type == GUMBO_NODE_TEXT || child->type == GUMBO_NODE_WHITESPACE)
            writer.text(child->v.text.text);
    }
    return writer.take();
}

// Elements that hold nothing open: void ones, and those their next sibling closes.
bool opensNoLevel(std::string_view name) {
    static constexpr std::string_view names[] = {
        "area",   "base",     "br",     "col",   "embed", "hr",    "img",   "input", "link",
        "meta",   "param",    "source", "track", "wbr",   "p",     "li",    "dd",    "dt",
        "option", "optgroup", "tr",     "td",    "th",    "tbody", "thead", "tfoot", "colgroup",
        "rb",     "rt",       "rp",     "rtc",   "html",  "head",  "body"};
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// Elements whose content is text up to their own end tag.
bool holdsRawText(std::string_view name) {
    return name == "script" || name == "style" || name == "textarea" || name == "title" ||
           name == "xmp" || name == "iframe" || name == "noembed" || name == "noframes";
}

// HTML elements that end SVG or MathML content they appear in.
bool leavesForeignContent(std::string_view name) {
    static constexpr std::string_view names[] = {
        "b",      "big",  "blockquote", "body",  "br",   "center", "code",    "dd",   "div",
        "dl",     "dt",   "em",         "embed", "h1",   "h2",     "h3",      "h4",   "h5",
        "h6",     "head", "hr",         "i",     "img",  "li",     "listing", "menu", "meta",
        "nobr",   "ol",   "p",          "pre",   "ruby", "s",      "small",   "span", "strong",
        "strike", "sub",  "sup",        "table", "tt",   "u",      "ul",      "var"};
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

constexpr int maxNesting = 512;

// gumbo walks the open elements for many start tags, so its time grows with nesting times
// length: a page of nothing but <div> would take minutes. Browsers stop nesting at 512; here
// the page is cut where an estimate of its nesting first passes that. End tags count only
// against start tags of the same name, so stray end tags cannot hide the depth.
std::size_t nestingBound(std::string_view html) {
    std::vector<std::pair<std::string, int>> open;
    int depth = 0;
    int foreign = 0; // open <svg> and <math> elements
    std::size_t at = 0;
    const auto nameAt = [&](std::size_t from) {
        std::string name;
        while (from < html.size() && name.size() < 16 &&
               (std::isalnum(uchar(html[from])) || html[from] == '-'))
            name.push_back(char(std::tolower(uchar(html[from++]))));
        return name;
    };
    while ((at = html.find('<', at)) != std::string_view::npos) {
        const auto start = at;
        if (html.substr(at, 4) == "<!--") {
            const auto end = html.find("-->", at + 4);
            if (end == std::string_view::npos)
                break;
            at = end + 3;
            continue;
        }
        const bool closing = at + 1 < html.size() && html[at + 1] == '/';
        const auto name = nameAt(at + (closing ? 2 : 1));
        // The end of the tag, past any quoted attribute values.
        char quote = 0;
        for (++at; at < html.size(); ++at) {
            const char c = html[at];
            if (quote) {
                if (c == quote)
                    quote = 0;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '>') {
                break;
            }
        }
        if (at >= html.size())
            break;
        if (name.empty() || opensNoLevel(name))
            continue;
        auto counter = std::find_if(open.begin(), open.end(),
                                    [&](const auto& entry) { return entry.first == name; });
        if (closing) {
            if ((name == "svg" || name == "math") && foreign > 0)
                --foreign;
            if (counter != open.end() && counter->second > 0) {
                --counter->second;
                --depth;
            }
            continue;
        }
        const bool foreignName = name == "svg" || name == "math";
        if (foreign > 0 && leavesForeignContent(name))
            foreign = 0;
        // "/>" closes an element only inside SVG and MathML; an HTML parser ignores it.
        if (html[at - 1] == '/' && foreign > 0)
            continue;
        if (foreignName && html[at - 1] != '/')
            ++foreign;
        if (holdsRawText(name)) {
            // Up to the matching end tag, whatever it contains.
            auto end = at;
            for (;;) {
                end = html.find("</", end);
                if (end == std::string_view::npos || nameAt(end + 2) == name)
                    break;
                end += 2;
            }
            if (end == std::string_view::npos)
                break;
            at = end;
            continue;
        }
        if (++depth > maxNesting)
            return start;
        if (counter == open.end())
            open.emplace_back(name, 1);
        else
            ++counter->second;
    }
    return html.size();
}

struct Frame {
    const GumboNode* node;
    unsigned next = 0;
    std::size_t start = 0; // output size when the element began, for links
};

void* allocate(void*, size_t size) {
    return std::malloc(size);
}

void deallocate(void*, void* pointer) {
    std::free(pointer);
}

GumboVector* childrenOf(GumboNode* node) {
    switch (node->type) {
    case GUMBO_NODE_DOCUMENT:
        return &node->v.document.children;
    case GUMBO_NODE_ELEMENT:
    case GUMBO_NODE_TEMPLATE:
        return &node->v.element.children;
    default:
        return nullptr;
    }
}

// gumbo frees its tree recursively, one stack frame per level. Before a deep tree is freed,
// every node is hung directly under the document, so that no path is longer than two.
void flatten(GumboOutput* output) {
    std::vector<GumboNode*> nodes;
    std::vector<GumboNode*> pending{output->document};
    while (!pending.empty()) {
        auto* node = pending.back();
        pending.pop_back();
        auto* children = childrenOf(node);
        if (!children)
            continue;
        for (unsigned i = 0; i < children->length; ++i) {
            auto* child = static_cast<GumboNode*>(children->data[i]);
            nodes.push_back(child);
            pending.push_back(child);
        }
        children->length = 0;
    }
    auto& top = output->document->v.document.children;
    auto* data = static_cast<void**>(allocate(nullptr, nodes.size() * sizeof(void*)));
    if (!data)
        qFatal("out of memory");
    std::copy(nodes.begin(), nodes.end(), data);
    deallocate(nullptr, top.data);
    top.data = data;
    top.length = top.capacity = unsigned(nodes.size());
}

GumboOptions parseOptions() {
    GumboOptions options = kGumboDefaultOptions;
    // Known allocation functions, so that flatten() may replace one of gumbo's arrays.
    options.allocator = &allocate;
    options.deallocator = &deallocate;
    options.max_errors = 0; // the parse errors are of no use here; do not keep them
    return options;
}

// Deeper trees than this are flattened before gumbo frees them.
constexpr std::size_t deepTree = 256;

struct OutputDeleter {
    std::size_t depth = 0;
    void operator()(GumboOutput* output) const {
        if (depth > deepTree)
            flatten(output);
        const auto options = parseOptions();
        gumbo_destroy_output(&options, output);
    }
};

} // namespace

HtmlText HtmlText::fromHtml(QByteArrayView html, const QUrl& base) {
    const std::string_view source(html.data(), std::size_t(html.size()));
    const auto usable = nestingBound(source);
    const auto options = parseOptions();
    std::unique_ptr<GumboOutput, OutputDeleter> output(
        gumbo_parse_with_options(&options, source.data(), usable));

    TextWriter writer(std::size_t(html.size()) / 3);
    std::string title;
    bool haveTitle = false;
    int preDepth = 0;

    // An explicit stack: page nesting is the page's choice, the thread's stack is not.
    std::vector<Frame> stack;
    stack.push_back(Frame{output->root});
    while (!stack.empty()) {
        auto& frame = stack.back();
        const GumboNode& node = *frame.node;
        const auto& element = node.v.element;
        if (frame.next < element.children.length) {
            const auto* child = static_cast<const GumboNode*>(element.children.data[frame.next++]);
            switch (child->type) {
            case GUMBO_NODE_TEXT:
            case GUMBO_NODE_WHITESPACE:
            case GUMBO_NODE_CDATA:
                if (preDepth > 0)
                    writer.preformatted(child->v.text.text);
                else
                    writer.text(child->v.text.text);
                break;
            case GUMBO_NODE_ELEMENT: {
                const auto& childElement = child->v.element;
                const auto tag = childElement.tag;
                // Foreign content only ever sits inside <svg> and <math>, which are dropped.
                if (childElement.tag_namespace != GUMBO_NAMESPACE_HTML)
                    break;
                if (tag == GUMBO_TAG_TITLE) {
                    if (!haveTitle) {
                        title = collapsed(*child);
                        haveTitle = true;
                    }
                    break;
                }
                if (isDropped(tag) || isHidden(childElement))
                    break;
                if (tag == GUMBO_TAG_BR) {
                    writer.lineBreak();
                    break;
                }
                if (isBlock(tag))
                    writer.blockBoundary();
                if (tag == GUMBO_TAG_PRE)
                    ++preDepth;
                stack.push_back(Frame{child, 0, writer.size()});
                output.get_deleter().depth = std::max(output.get_deleter().depth, stack.size());
                break;
            }
            default: // comments, documents and templates
                break;
            }
            continue;
        }

        // The element is complete.
        const auto tag = element.tag;
        if (node.type == GUMBO_NODE_ELEMENT) {
            if (tag == GUMBO_TAG_A && writer.size() > frame.start) {
                const auto target = linkTarget(attribute(element, "href"), base);
                if (!target.empty() && writer.since(frame.start) != target) {
                    writer.space();
                    writer.text("(");
                    writer.preformatted(target);
                    writer.preformatted(")");
                }
            }
            if (tag == GUMBO_TAG_PRE)
                --preDepth;
            if (isBlock(tag))
                writer.blockBoundary();
            else if (tag == GUMBO_TAG_TD || tag == GUMBO_TAG_TH)
                writer.space();
        }
        stack.pop_back();
    }

    const auto text = writer.take();
    return HtmlText{QString::fromUtf8(title.data(), qsizetype(title.size())),
                    QString::fromUtf8(text.data(), qsizetype(text.size())), usable < source.size()};
}

} // namespace kestrolan
