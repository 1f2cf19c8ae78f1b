#include "qstring_printer.h"
#include "web/html_text.h"

#include <QThread>
#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

HtmlText read(const char* html, const char* base = "https://example.org/docs/page.html") {
    return HtmlText::fromHtml(QByteArrayView(html), QUrl(QString::fromLatin1(base)));
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

    // ... but a page of endless nesting, which would take the parser minutes and the tree's
    // release a stack far larger than a pool thread's, is cut where it gets too deep. Stray
    // end tags and HTML's ignored "/>" do not hide the depth.
    for (const QByteArray& unit : {QByteArray("<div>"), QByteArray("<div></x>"),
                                   QByteArray("<div/>"), QByteArray("<svg><p/><div/>")}) {
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
