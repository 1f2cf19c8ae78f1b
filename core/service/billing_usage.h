#pragma once

#include <QJsonObject>
#include <QString>
#include <QtGlobal>
#include <optional>

namespace kestrolan {

// What the service billed for one request, as sent in its "kestrolan.billing" stream event and
// with web searches. The charge stays decimal text exactly as received.
struct BillingUsage {
    enum class State { settled, unresolved, released };

    std::optional<quint64> promptTokens;
    std::optional<quint64> completionTokens;
    std::optional<QString> chargedUSD;
    State state = State::unresolved;

    bool operator==(const BillingUsage&) const = default;

    // The line shown under a reply, e.g. "Charged $0.0042".
    QString summary() const;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing, of the wrong type, a token count is
    // negative or fractional, or the state is not one of the three names.
    static BillingUsage fromJson(const QJsonObject& object);

    static QString toString(State state);
    static std::optional<State> stateFromString(QStringView text);
};

} // namespace kestrolan
