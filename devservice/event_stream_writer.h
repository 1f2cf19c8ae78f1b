#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <optional>

namespace kestrolan::devservice {

// The bytes of a chat reply stream: OpenAI-style chunks as "data:" events, the billing and
// error events, comments and the closing "[DONE]". Lines end in LF, or CR LF when asked.
class EventStreamWriter {
public:
    struct Billing {
        QString state; // settled, unresolved or released
        std::optional<std::uint64_t> promptTokens;
        std::optional<std::uint64_t> completionTokens;
        std::optional<QString> chargedUsd;
    };

    EventStreamWriter(QString completionId, QString model, qint64 created, bool crlf);

    QByteArray roleChunk() const;
    QByteArray contentChunk(const QString& text) const;
    // The first delta of a call names it; later ones add to its arguments.
    QByteArray toolCallChunk(int index, const std::optional<QString>& id,
                             const std::optional<QString>& name,
                             const std::optional<QString>& arguments) const;
    QByteArray finishChunk(const QString& reason) const;
    QByteArray usageChunk(std::uint64_t promptTokens, std::uint64_t completionTokens) const;
    QByteArray billingEvent(const Billing& billing) const;
    QByteArray errorEvent(const QJsonObject& envelope) const;
    QByteArray comment(const QString& text) const;
    // One "data:" block holding `data` as it stands (a line each for embedded line ends).
    QByteArray rawData(const QByteArray& data) const;
    QByteArray done() const;

private:
    QByteArray chunk(const QJsonObject& delta, const std::optional<QString>& finishReason) const;
    QByteArray event(const QByteArray& name, const QByteArray& data) const;

    QString m_id;
    QString m_model;
    qint64 m_created;
    QByteArray m_newline;
};

} // namespace kestrolan::devservice
