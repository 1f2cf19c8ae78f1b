#pragma once

#include <QJsonObject>
#include <QString>
#include <optional>

namespace kestrolan {

// One model of the service's catalog. Prices are decimal US dollars per million tokens, kept as
// text: never converted to binary floating point.
struct CatalogModel {
    struct Capabilities {
        bool toolCalling = false;
        bool responseFormat = false;
        bool operator==(const Capabilities&) const = default;
    };
    struct Pricing {
        std::optional<QString> inputUSDPerMTok;
        std::optional<QString> cachedInputUSDPerMTok;
        std::optional<QString> outputUSDPerMTok;
        bool operator==(const Pricing&) const = default;
    };

    QString id; // sent in chat requests
    QString displayName;
    bool available = false; // unavailable models are listed but cannot be selected
    QString description;
    std::optional<Capabilities> capabilities;
    std::optional<qint64> contextTokens;
    qint64 maxOutputTokens = 0;
    qint64 defaultOutputTokens = 0;
    std::optional<Pricing> pricing;

    bool operator==(const CatalogModel&) const = default;

    // Throws JsonReader::FieldError for a missing or mistyped field.
    static CatalogModel fromJson(const QJsonObject& object);
    QJsonObject toJson() const;
};

} // namespace kestrolan
