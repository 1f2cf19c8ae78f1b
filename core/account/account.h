#pragma once

#include <QJsonObject>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// The signed-in account as GET /api/account returns it. Amounts are decimal US dollars, kept
// as text from the wire to the screen.
struct Account {
    struct ZeroRetention {
        bool enabled = false;
        bool operator==(const ZeroRetention&) const = default;
    };

    std::optional<QUuid> id;
    ZeroRetention zeroRetention;
    QString email;
    QString balanceUSD;
    QString heldUSD;
    QString availableUSD;

    bool operator==(const Account&) const = default;

    // Throws JsonReader::FieldError for a missing or mistyped field.
    static Account fromJson(const QJsonObject& object);
    QJsonObject toJson() const;
};

} // namespace kestrolan
