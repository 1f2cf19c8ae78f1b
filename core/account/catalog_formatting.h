#pragma once

#include "account/catalog_model.h"

#include <QString>
#include <optional>

namespace kestrolan {

// The price line and context size of a model, as the model picker shows them.
struct CatalogFormatting {
    static constexpr auto notProvided = QLatin1StringView("Not provided");

    // "$0.15", or "Not provided" for an absent, negative or malformed price.
    static QString price(const std::optional<QString>& value);
    // "128K", "1.5M", "512", or "Not provided" when absent or below 1.
    static QString context(std::optional<qint64> tokens);
    // "$0.15 in · $0.60 out per 1M tokens · 128K context"
    static QString metadata(const CatalogModel& model);
    // "$0.15 input · $0.6 output per 1M tokens · 128,000 context tokens": prices as received.
    static QString exactMetadata(const CatalogModel& model);
};

} // namespace kestrolan
