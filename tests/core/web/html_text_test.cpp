#include "qstring_printer.h"
#include "web/html_text.h"

#include <QThread>
#include <QtConcurrent>
#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

HtmlText read(const char* html, const char* base = "https://example.org/docs/page.html") {
    return HtmlText::fromHtml(QByteArrayView(html), QUrl(QString::fromLatin1(base)));
}

// Bytes of a literal that may hold NUL.
template <std::size_t n>
QByteArrayView bytes(const char (&literal)[n]) {
    return QByteArrayView(literal, qsizetype(n - 1));
}

} // namespace

TEST(HtmlText, KeepsTheTitleAndDropsWhatAReaderNeverSees) {
    const auto page = read(R"html(<!doctype html><html><head>
        <title>  The
           Title </title>
        <style>body { color: red }</style><script>var secret = "script";</script>
        </head><body>
        <p>Visible</p>
        <script>alert("also script")</script>
        <noscript>Enable JavaScript</noscript>
        <template><p>Template content</p></template>
        <div hidden>Hidden attribute</div>
        <span aria-hidden="TRUE">Aria hidden</span>
        <span aria-hidden="false">Aria shown</span>
        <p style="color: red; DISPLAY : none">Inline display none</p>
        <p style="visibility:hidden">Invisible</p>
        <svg><text>Vector text</text><title>Svg title</title></svg>
        <!-- a comment -->
        <p>End</p></body></html>)html");
    EXPECT_EQ(page.title, u"The Title");
    EXPECT_EQ(page.text, u"Visible\nAria shown\nEnd");
}

TEST(HtmlText, BlocksBreakLinesAndWhiteSpaceCollapses) {
    const auto page =
        read("<h1>Heading</h1>  text   with\n\tspaces<b>bold</b> <i>and</i>"
             "<div><div><p>nested</p></div></div>"
             "<ul><li>one</li><li>two</li></ul>"
             "line<br>break<br><br><br>after"
             "<table><tr><td>a</td><td>b</td></tr><tr><th>c</th><td>d</td></tr></table>"
             "<pre>  keep\r\n    this\n</pre>tail");
    EXPECT_EQ(page.text, u"Heading\ntext with spacesbold and\nnested\none\ntwo\nline\nbreak\n\n"
                         u"after\na b\nc d\n  keep\n    this\n\ntail");
}

TEST(HtmlText, LinkTargetsFollowTheirText) {
    const auto page = read(R"html(<p><a href="https://other.example/x?y=1">Absolute</a>,
        <a href="../guide/">relative</a>, <a href="#top">fragment</a>,
        <a href="javascript:alert(1)">script</a>, <a href="mailto:a@example.org">mail</a>,
        <a href="https://same.example/">https://same.example/</a>,
        <a href="/empty"><img src="x.png"></a>end</p>)html");
    EXPECT_EQ(page.text, u"Absolute (https://other.example/x?y=1), relative "
                         u"(https://example.org/guide/), fragment, script, mail "
                         u"(mailto:a@example.org), https://same.example/, end");

    // Without a base a relative target cannot be shown truthfully.
    EXPECT_EQ(HtmlText::fromHtml("<a href='/a'>x</a> <a href='http://h/'>y</a>").text,
              u"x y (http://h/)");
}

TEST(HtmlText, SurvivesBrokenAndHostileMarkup) {
    // Invalid UTF-8 is repaired, unclosed tags closed, entities decoded.
    const auto broken = HtmlText::fromHtml("<p>caf\xc3\xa9 \xff\xfe &amp; &lt;b&gt; <b>unclosed");
    EXPECT_EQ(broken.text, QStringLiteral("café \uFFFD\uFFFD & <b> unclosed"));
    EXPECT_TRUE(HtmlText::fromHtml("").text.isEmpty());

    // Nesting as deep as real pages go is read whole, self-closed SVG shapes nest nothing ...
    QByteArray nested = "<svg>";
    for (int i = 0; i < 2'000; ++i)
        nested += "<path d='M0 0'/>";
    nested += "</svg>";
    for (int i = 0; i < 250; ++i)
        nested += "<div><span>";
    nested += "bottom";
    const auto deepButFine = HtmlText::fromHtml(nested);
    EXPECT_EQ(deepButFine.text, u"bottom");
    EXPECT_FALSE(deepButFine.truncated);

    // ... but a page of endless nesting, which would cost the parser time for every stray end
    // tag, is cut where it gets too deep, also on a small thread stack. Stray end tags do not
    // hide the depth.
    for (const QByteArray& unit : {QByteArray("<div>"), QByteArray("<div></x>"),
                                   QByteArray("<b><i>"), QByteArray("<svg><p/><div/>")}) {
        QByteArray deep = "<p>top</p>";
        for (int i = 0; i < 200'000; ++i)
            deep += unit;
        deep += "bottom";
        HtmlText page;
        auto* thread = QThread::create([&] { page = HtmlText::fromHtml(deep); });
        thread->setStackSize(512 * 1024);
        thread->start();
        thread->wait();
        delete thread;
        EXPECT_EQ(page.text, u"top") << unit.toStdString();
        EXPECT_TRUE(page.truncated);
    }
}

TEST(HtmlText, MisnestedMarkupClosesWhereABrowserWould) {
    // Unclosed <p> and <li> end at the next block, a stray </div> changes nothing, a second
    // <a> ends the first, and what follows </html> is still the page.
    const auto page = read("<p>one<p>two<ul><li>a<li>b</ul></div>after the stray end "
                           "<a href='/x'>first<a href='/y'>second</a></a>"
                           "</body></html><p>late</p>");
    EXPECT_EQ(page.text, u"one\ntwo\na\nb\nafter the stray end first (https://example.org/x)"
                         u"second (https://example.org/y)\nlate");

    // A block closes a hidden paragraph, so what follows is shown; an end tag that does not
    // match leaves the hidden element open, as a browser does.
    EXPECT_EQ(read("<p hidden>secret<div>shown</div><span hidden><div>x</span>still hidden"
                   "</div>and this")
                  .text,
              u"shown");

    // An <svg> left open ends where HTML resumes; HTML inside its foreignObject stays in the
    // dropped drawing.
    EXPECT_EQ(read("<svg><text>drawn</text><p>resumed</p>").text, u"resumed");
    EXPECT_EQ(read("<svg><foreignObject><p>inside</p></foreignObject></svg><p>out</p>").text,
              u"out");

    // A title may hold markup; the first one names the page, later ones are not text.
    const auto titled = read("<title>A <b>bold</b> &amp; plain</title><p>x</p><title>B</title>");
    EXPECT_EQ(titled.title, u"A bold & plain");
    EXPECT_EQ(titled.text, u"x");
}

TEST(HtmlText, ScriptsCommentsAndPreKeepTheirContentApart) {
    const auto page = read(R"html(<p>before</p>
        <script>document.write("</p><p>from script</div>"); if (a<b) x = "<!--";</script>
        <style>p::after { content: "</style-ish>" }</style>
        <p>mid<!-- <p>commented</p> -->dle</p>
        <pre>
first line
	tab</pre>after)html");
    EXPECT_EQ(page.text, u"before\nmiddle\nfirst line\n\ttab\nafter");

    // Only the first newline after <pre> is markup.
    EXPECT_EQ(read("<pre>\r\n\nx\r\ry</pre>").text, u"\nx\n\ny");
}

TEST(HtmlText, ReadsUtf8WhateverThePageDeclares) {
    // The fetcher has already decoded the page: a declared charset must not change that.
    const auto declared =
        HtmlText::fromHtml("<meta charset=\"latin1\"><title>caf\xc3\xa9</title><p>na\xc3\xafve</p>"
                           "<meta http-equiv=\"Content-Type\" content=\"text/html; "
                           "charset=iso-8859-1\"><p>\xe2\x82\xac</p>");
    EXPECT_EQ(declared.title, u"café");
    EXPECT_EQ(declared.text, u"naïve\n€");

    // Nor may the first bytes, which look like a UTF-16 mark or "<?" in UTF-16.
    EXPECT_EQ(HtmlText::fromHtml("\xff\xfe<p>a</p>").text, QStringLiteral("\uFFFD\uFFFD\na"));
    EXPECT_TRUE(HtmlText::fromHtml(bytes("<\0?\0<p>b</p>")).text.endsWith(u"?\uFFFD\nb"));

    // A NUL inside a tag loses nothing after it, and the halves of a broken sequence on either
    // side of a tag stay broken instead of joining into a character.
    EXPECT_EQ(HtmlText::fromHtml(bytes("<p\0 class=x>a</p><p>b</p>")).text, u"a\nb");
    EXPECT_EQ(HtmlText::fromHtml("<p>\xc3<b>\xa9</b></p>").text, QStringLiteral("\uFFFD\uFFFD"));

    // Entities in text and in link targets; a bare "&name" is text, as in a query string.
    const auto entities = read("<p>a&nbsp;b &#x1F600; &lt;tag&gt;</p>"
                               "<a href=\"https://x.example/?a=1&amp;b=2\">q</a> "
                               "<a href=\"/s?lang=en&copy=2\">r</a>");
    EXPECT_EQ(entities.text, QStringLiteral("a\u00A0b \U0001F600 <tag>\nq "
                                            "(https://x.example/?a=1&b=2) r "
                                            "(https://example.org/s?lang=en&copy=2)"));
}

TEST(HtmlText, NestingIsCutAtItsLimitAndWhatCameBeforeIsKept) {
    const auto nested = [](int depth) {
        QByteArray html = "<title>T</title><a href='https://t.example/'>top</a>"
                          " <a href='https://u.example/'>open link ";
        for (int i = 1; i < depth; ++i) // the <a> is the first level
            html += "<b>";
        return html += "bottom";
    };
    const auto atLimit = HtmlText::fromHtml(nested(512));
    EXPECT_EQ(atLimit.text, u"top (https://t.example/) open link bottom (https://u.example/)");
    EXPECT_FALSE(atLimit.truncated);

    // One level deeper, the rest is left out; the link still open there keeps its target.
    const auto past = HtmlText::fromHtml(nested(513));
    EXPECT_EQ(past.title, u"T");
    EXPECT_EQ(past.text, u"top (https://t.example/) open link (https://u.example/)");
    EXPECT_TRUE(past.truncated);
}

TEST(HtmlText, TagsWithAbsurdlyManyAttributesEndThePage) {
    // Each attribute is checked against those before it: a page of one tag with 300,000 of
    // them would take minutes. Quoted values, also holding '>', count as one attribute each.
    const auto tag = [](int attributes) {
        QByteArray html = "<p>before</p><p title=\"a > b\" data-x='<p>'";
        for (int i = 2; i < attributes; ++i)
            html += " a" + QByteArray::number(i) + (i % 2 ? "=\">\"" : "");
        return html += ">after</p>";
    };
    const auto atLimit = HtmlText::fromHtml(tag(256));
    EXPECT_EQ(atLimit.text, u"before\nafter");
    EXPECT_FALSE(atLimit.truncated);

    const auto past = HtmlText::fromHtml(tag(257));
    EXPECT_EQ(past.text, u"before");
    EXPECT_TRUE(past.truncated);

    const auto flood = HtmlText::fromHtml(tag(300'000));
    EXPECT_EQ(flood.text, u"before");
    EXPECT_TRUE(flood.truncated);
    EXPECT_TRUE(HtmlText::fromHtml(tag(300'000).mid(13)).truncated);
}

TEST(HtmlText, ReadsQuietlyOnSeveralThreadsAtOnce) {
    QByteArray page;
    for (int i = 0; i < 200; ++i)
        page += "<div><p>para " + QByteArray::number(i) +
                " <a href='/l'>link</a></div></x><unknown-tag>&bogus;<b>";
    const auto expected = HtmlText::fromHtml(page, QUrl(QStringLiteral("https://e.example/")));

    // The parser's complaints about this markup must not reach the console.
    testing::internal::CaptureStderr();
    const QList<int> runs(16);
    const auto pages = QtConcurrent::blockingMapped(runs, [&](int) {
        return HtmlText::fromHtml(page, QUrl(QStringLiteral("https://e.example/")));
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    for (const auto& other : pages) {
        EXPECT_EQ(other.text, expected.text);
        EXPECT_FALSE(other.truncated);
    }
    EXPECT_TRUE(expected.text.endsWith(u"para 199 link (https://e.example/l)\n&bogus;"));
}
