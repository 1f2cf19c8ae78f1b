#include "event_stream_writer.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace kestrolan::devservice {

EventStreamWriter::EventStreamWriter(QString completionId, QString model, qint64 created, bool crlf)
    : m_id(std::move(completionId))
    , m_model(std::move(model))
    , m_created(created)
    , m_newline(crlf ? "\r\n" : "\n") {}

QByteArray EventStreamWriter::event(const QByteArray& name, const QByteArray& data) const {
    QByteArray bytes;
    if (!name.isEmpty())
        bytes += "event: " + name + m_newline;
    // A line end inside the data would end the field: each line is its own "data:" field.
    for (const auto& line : data.split('\n'))
        bytes += "data: " + line + m_newline;
    return bytes + m_newline;
}

QByteArray EventStreamWriter::chunk(const QJsonObject& delta,
                                    const std::optional<QString>& finishReason) const {
    const QJsonObject choice{
        {QStringLiteral("index"), 0},
        {QStringLiteral("delta"), delta},
        {QStringLiteral("finish_reason"),
         finishReason ? QJsonValue(*finishReason) : QJsonValue(QJsonValue::Null)},
    };
    const QJsonObject object{
        {QStringLiteral("id"), m_id},
        {QStringLiteral("object"), QStringLiteral("chat.completion.chunk")},
        {QStringLiteral("created"), m_created},
        {QStringLiteral("model"), m_model},
        {QStringLiteral("choices"), QJsonArray{choice}},
    };
    return event({}, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QByteArray EventStreamWriter::roleChunk() const {
    return chunk(QJsonObject{{QStringLiteral("role"), QStringLiteral("assistant")}}, std::nullopt);
}

QByteArray EventStreamWriter::contentChunk(const QString& text) const {
    return chunk(QJsonObject{{QStringLiteral("content"), text}}, std::nullopt);
}

QByteArray EventStreamWriter::toolCallChunk(int index, const std::optional<QString>& id,
                                            const std::optional<QString>& name,
                                            const std::optional<QString>& arguments) const {
    QJsonObject call{{QStringLiteral("index"), index}};
    if (id) {
        call.insert(QStringLiteral("id"), *id);
        call.insert(QStringLiteral("type"), QStringLiteral("function"));
    }
    QJsonObject function;
    if (name)
        function.insert(QStringLiteral("name"), *name);
    if (arguments)
        function.insert(QStringLiteral("arguments"), *arguments);
    if (!function.isEmpty())
        call.insert(QStringLiteral("function"), function);
    return chunk(QJsonObject{{QStringLiteral("tool_calls"), QJsonArray{call}}}, std::nullopt);
}

QByteArray EventStreamWriter::finishChunk(const QString& reason) const {
    return chunk(QJsonObject{}, reason);
}

QByteArray EventStreamWriter::usageChunk(std::uint64_t promptTokens,
                                         std::uint64_t completionTokens) const {
    const QJsonObject object{
        {QStringLiteral("id"), m_id},
        {QStringLiteral("object"), QStringLiteral("chat.completion.chunk")},
        {QStringLiteral("created"), m_created},
        {QStringLiteral("model"), m_model},
        {QStringLiteral("choices"), QJsonArray{}},
        {QStringLiteral("usage"),
         QJsonObject{{QStringLiteral("prompt_tokens"), qint64(promptTokens)},
                     {QStringLiteral("completion_tokens"), qint64(completionTokens)},
                     {QStringLiteral("total_tokens"), qint64(promptTokens + completionTokens)}}},
    };
    return event({}, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QByteArray EventStreamWriter::billingEvent(const Billing& billing) const {
    QJsonObject object{{QStringLiteral("state"), billing.state}};
    if (billing.promptTokens)
        object.insert(QStringLiteral("prompt_tokens"), qint64(*billing.promptTokens));
    if (billing.completionTokens)
        object.insert(QStringLiteral("completion_tokens"), qint64(*billing.completionTokens));
    if (billing.chargedUsd)
        object.insert(QStringLiteral("charged_usd"), *billing.chargedUsd);
    return event("kestrolan.billing", QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QByteArray EventStreamWriter::errorEvent(const QJsonObject& envelope) const {
    return event("error", QJsonDocument(envelope).toJson(QJsonDocument::Compact));
}

QByteArray EventStreamWriter::comment(const QString& text) const {
    return ": " + text.toUtf8() + m_newline + m_newline;
}

QByteArray EventStreamWriter::rawData(const QByteArray& data) const {
    return event({}, data);
}

QByteArray EventStreamWriter::done() const {
    return event({}, "[DONE]");
}

} // namespace kestrolan::devservice
