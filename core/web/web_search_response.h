#pragma once

#include "service/billing_usage.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

namespace kestrolan {

struct WebSearchResult {
    QString title;
    QString url;
    QString snippet;

    bool operator==(const WebSearchResult&) const = default;
};

// The service's answer to one web search.
struct WebSearchResponse {
    QString query;
    QList<WebSearchResult> results;
    std::optional<BillingUsage> billing;

    // Throws ClientError(invalidResponse) when the body is not the expected object.
    static WebSearchResponse fromJson(const QByteArray& body);
    // Compact JSON with sorted keys and "untrusted": true, within the tool result limit.
    QString toolResultText() const;
};

} // namespace kestrolan
