#pragma once

#include "search_provider.h"

namespace kestrolan::devservice {

// An offline corpus of a few pages: a query returns the pages that share the most words with
// it (at most five), the same every time.
class FixtureSearch : public SearchProvider {
public:
    std::variant<QList<SearchResult>, QString> search(const QString& query) override;
};

} // namespace kestrolan::devservice
