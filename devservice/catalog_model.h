#pragma once

#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <optional>

namespace kestrolan::devservice {

// One model of the catalog: what the client is shown, plus where its replies come from.
struct CatalogModel {
    struct Capabilities {
        bool toolCalling = false;
        bool responseFormat = false;
    };
    // A price per million tokens: the text as published and its value in millionths.
    struct Price {
        QString text;
        std::uint64_t millionths = 0;
    };
    struct Pricing {
        std::optional<Price> input;
        std::optional<Price> cachedInput;
        std::optional<Price> output;
    };
    // An OpenAI-compatible server that produces this model's replies.
    struct Upstream {
        QString model; // the name the upstream server knows it by
        QString url;   // base URL, e.g. http://127.0.0.1:8080/v1
        std::optional<QString> apiKey;
    };

    QString id;
    QString displayName;
    bool available = true;
    QString description;
    std::optional<Capabilities> capabilities;
    std::optional<qint64> contextTokens;
    qint64 maxOutputTokens = 0;
    qint64 defaultOutputTokens = 0;
    std::optional<Pricing> pricing;
    std::optional<Upstream> upstream;

    bool supportsTools() const { return capabilities && capabilities->toolCalling; }
    // Input and output each rounded up to the next millionth; empty on overflow.
    std::optional<std::uint64_t> cost(std::uint64_t promptTokens,
                                      std::uint64_t completionTokens) const;
    // The client's catalog record (no upstream details).
    QJsonObject toJson() const;
};

} // namespace kestrolan::devservice
