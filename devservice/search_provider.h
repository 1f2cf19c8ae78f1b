#pragma once

#include <QList>
#include <QString>
#include <variant>

namespace kestrolan::devservice {

struct SearchResult {
    QString title;
    QString url;
    QString snippet;
};

// Where web searches are answered from.
class SearchProvider {
public:
    virtual ~SearchProvider() = default;
    // The results, or the reason the search failed.
    virtual std::variant<QList<SearchResult>, QString> search(const QString& query) = 0;
};

} // namespace kestrolan::devservice
