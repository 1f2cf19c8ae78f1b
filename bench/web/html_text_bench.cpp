#include "web/html_text.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

using namespace kestrolan;

namespace {

// A news-site-like page: head with styles and scripts, navigation, articles of paragraphs with
// links and inline markup, lists, tables, hidden blocks and comments, repeated to `size`.
QByteArray generatedPage(qsizetype size) {
    QByteArray page = R"(<!DOCTYPE html><html lang="en"><head><meta charset="utf-8">
<title>Daily Kestrel &mdash; Front page</title>
<link rel="stylesheet" href="/static/site.css"><style>.nav{display:flex}.ad{height:90px}</style>
<script>window.dataLayer=window.dataLayer||[];function gtag(){dataLayer.push(arguments)}</script>
</head><body><header class="top"><nav class="nav"><ul>
<li><a href="/">Home</a></li><li><a href="/world/">World</a></li><li><a href="/tech/">Tech</a></li>
<li><a href="https://shop.example.com/">Shop</a></li></ul></nav></header><main>)";
    for (int n = 0; page.size() < size; ++n) {
        const auto id = QByteArray::number(n);
        page += "<article class=\"story\" id=\"s" + id + "\"><h2><a href=\"/story/" + id +
                "\">Story number " + id +
                " makes the news</a></h2>\n<p class=\"lede\">"
                "The <strong>council</strong> met on Tuesday to discuss the <em>budget</em>, "
                "and after a long debate &amp; several amendments it agreed to fund the "
                "<a href=\"https://example.org/report.pdf\">annual report</a> in full.</p>\n"
                "<p>Residents who spoke at the meeting said the change was overdue; "
                "<span class=\"quote\">&ldquo;we have waited years&rdquo;</span>, one said. "
                "Further details are <a href=\"../details/" +
                id +
                "\">on the details page</a>."
                "</p><!-- ad slot --><div class=\"ad\" aria-hidden=\"true\">Advertisement</div>"
                "<ul class=\"facts\"><li>Votes for: 7</li><li>Votes against: 2</li>"
                "<li>Abstained: 1</li></ul><table class=\"figures\"><tr><th>Item</th>"
                "<th>Amount</th></tr><tr><td>Roads</td><td>&euro;1.2m</td></tr><tr><td>Parks"
                "</td><td>&euro;0.4m</td></tr></table><div hidden>tracking pixel</div>"
                "<script>track('s" +
                id + "')</script></article>\n";
    }
    page += "</main><footer><p>&copy; Daily Kestrel</p></footer></body></html>";
    return page;
}

void BM_HtmlToText(benchmark::State& state) {
    const auto page = generatedPage(1 << 20);
    const QUrl base(QStringLiteral("https://news.example.com/index.html"));
    for (auto _ : state) {
        auto text = HtmlText::fromHtml(page, base);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * page.size());
}
BENCHMARK(BM_HtmlToText)->Unit(benchmark::kMillisecond);

} // namespace
