#pragma once

#include "search_provider.h"

#include <QString>

namespace kestrolan::devservice {

class HttpClient;

// A SearXNG instance's JSON API (its settings must allow the "json" format).
class SearxngSearch : public SearchProvider {
public:
    SearxngSearch(QString baseUrl, HttpClient& http);

    std::variant<QList<SearchResult>, QString> search(const QString& query) override;

private:
    QString m_baseUrl;
    HttpClient& m_http;
};

} // namespace kestrolan::devservice
