#include "searxng_search.h"

#include "http_client.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumResponseBytes = 4 * 1024 * 1024;
constexpr qsizetype maximumResults = 10;

} // namespace

SearxngSearch::SearxngSearch(QString baseUrl, HttpClient& http)
    : m_baseUrl(std::move(baseUrl))
    , m_http(http) {}

std::variant<QList<SearchResult>, QString> SearxngSearch::search(const QString& query) {
    QUrl url(m_baseUrl);
    auto path = url.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    url.setPath(path + QStringLiteral("/search"));
    // Encoded by hand: a "+" left as it is would reach the engine as a space.
    url.setQuery(QStringLiteral("q=") + QString::fromLatin1(QUrl::toPercentEncoding(query)) +
                 QStringLiteral("&format=json"));

    const auto reply = m_http.get(url, {{"Accept", "application/json"}}, maximumResponseBytes);
    if (const auto* failure = std::get_if<QString>(&reply))
        return QStringLiteral("The search engine could not be reached (") + *failure +
               QStringLiteral(").");
    const auto& response = std::get<HttpClient::Response>(reply);
    if (response.status != 200)
        return QStringLiteral("The search engine answered HTTP %1.").arg(response.status);
    const auto document = QJsonDocument::fromJson(response.body);
    if (!document.isObject() || !document.object().value(QStringLiteral("results")).isArray())
        return QStringLiteral("The search engine sent an unreadable answer.");

    QList<SearchResult> results;
    for (const auto& value : document.object().value(QStringLiteral("results")).toArray()) {
        const auto item = value.toObject();
        const auto link = item.value(QStringLiteral("url")).toString();
        if (link.isEmpty())
            continue;
        results.append(SearchResult{item.value(QStringLiteral("title")).toString(), link,
                                    item.value(QStringLiteral("content")).toString()});
        if (results.size() == maximumResults)
            break;
    }
    return results;
}

} // namespace kestrolan::devservice
