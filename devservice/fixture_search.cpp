#include "fixture_search.h"

#include <QRegularExpression>
#include <algorithm>
#include <array>

namespace kestrolan::devservice {

namespace {

struct Page {
    const char* title;
    const char* url;
    const char* snippet;
};

constexpr std::array corpus{
    Page{"Server-sent events", "https://example.org/docs/server-sent-events",
         "Server-sent events stream text from a server to a client over one HTTP response; each "
         "event is a block of data lines ended by an empty line."},
    Page{"Proof Key for Code Exchange (PKCE)", "https://example.org/docs/pkce",
         "PKCE binds an authorization code to the client that asked for it: the client sends a "
         "SHA-256 challenge first and the verifier when it exchanges the code."},
    Page{"SQLite write-ahead logging", "https://example.org/docs/sqlite-wal",
         "In WAL mode SQLite appends changes to a log and readers keep reading the database "
         "while a writer commits; a crash rolls back unfinished transactions."},
    Page{"Cron expressions", "https://example.org/docs/cron",
         "A cron expression has five fields: minute, hour, day of month, month and day of week. "
         "0 9 * * 1-5 runs at nine on weekdays."},
    Page{"Decimal money arithmetic", "https://example.org/docs/decimal-money",
         "Keep money in integer minor units or decimal text; binary floating point cannot hold "
         "0.10 exactly and rounding errors add up."},
    Page{"Qt event loop", "https://example.org/docs/qt-event-loop",
         "The Qt event loop delivers timers, socket notifications and queued signals on the "
         "thread that runs it; blocking that thread freezes the user interface."},
    Page{"OpenAI-compatible chat completions", "https://example.org/docs/chat-completions",
         "Chat completion servers such as llama.cpp, Ollama and vLLM accept a list of messages "
         "and stream chunks with content and tool call deltas."},
    Page{"Weather in Reykjavik", "https://example.org/weather/reykjavik",
         "Reykjavik has a subarctic oceanic climate: cool summers around 13 degrees Celsius and "
         "mild, windy winters near freezing."},
    Page{"Kestrel (bird)", "https://example.org/wiki/kestrel",
         "Kestrels are small falcons that hover while hunting voles and insects over open "
         "country."},
    Page{"Sourdough bread", "https://example.org/recipes/sourdough",
         "Sourdough rises with a starter of wild yeast and lactic bacteria; a long cold proof "
         "gives a more open crumb and sour taste."},
};

QStringList words(const QString& text) {
    static const QRegularExpression separator(QStringLiteral("[^\\p{L}\\p{N}]+"));
    auto list = text.toCaseFolded().split(separator, Qt::SkipEmptyParts);
    list.removeIf([](const QString& word) { return word.size() < 2; });
    list.removeDuplicates();
    return list;
}

} // namespace

std::variant<QList<SearchResult>, QString> FixtureSearch::search(const QString& query) {
    const auto terms = words(query);
    QList<std::pair<int, SearchResult>> scored;
    for (const auto& page : corpus) {
        const auto pageWords =
            words(QString::fromUtf8(page.title) + u' ' + QString::fromUtf8(page.snippet));
        int score = 0;
        for (const auto& term : terms)
            score += pageWords.contains(term) ? 1 : 0;
        if (score > 0)
            scored.append(
                {score, SearchResult{QString::fromUtf8(page.title), QString::fromUtf8(page.url),
                                     QString::fromUtf8(page.snippet)}});
    }
    std::stable_sort(scored.begin(), scored.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    QList<SearchResult> results;
    for (qsizetype i = 0; i < scored.size() && i < 5; ++i)
        results.append(scored[i].second);
    return results;
}

} // namespace kestrolan::devservice
