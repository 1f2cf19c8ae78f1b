#include "upstream_normalizer.h"

#include "pkce.h"

#include <QJsonArray>

namespace kestrolan::devservice {

UpstreamNormalizer::UpstreamNormalizer(GenerationSink& sink)
    : m_sink(sink) {}

void UpstreamNormalizer::readUsage(const QJsonObject& object) {
    const auto usage = object.value(QStringLiteral("usage"));
    if (!usage.isObject())
        return;
    const auto prompt = usage.toObject().value(QStringLiteral("prompt_tokens"));
    const auto completion = usage.toObject().value(QStringLiteral("completion_tokens"));
    if (prompt.isDouble() && completion.isDouble() && prompt.toDouble() >= 0 &&
        completion.toDouble() >= 0)
        m_usage =
            TokenCounts{std::uint64_t(prompt.toDouble()), std::uint64_t(completion.toDouble())};
}

bool UpstreamNormalizer::readError(const QJsonObject& object) {
    const auto error = object.value(QStringLiteral("error"));
    if (!error.isObject() && !error.isString())
        return false;
    const auto message = error.isString()
                             ? error.toString()
                             : error.toObject().value(QStringLiteral("message")).toString();
    m_error = message.isEmpty() ? QStringLiteral("The upstream model server reported an error.")
                                : message;
    return true;
}

bool UpstreamNormalizer::chunk(const QJsonObject& chunk) {
    if (readError(chunk))
        return false;
    readUsage(chunk);
    const auto choices = chunk.value(QStringLiteral("choices")).toArray();
    for (const auto& choice : choices) {
        const auto object = choice.toObject();
        // Only the first choice is relayed; the service never asks for more.
        if (object.value(QStringLiteral("index")).toInt(0) != 0)
            continue;
        if (!readChoice(object, QStringLiteral("delta")))
            return false;
    }
    return true;
}

bool UpstreamNormalizer::completion(const QJsonObject& completion) {
    if (readError(completion))
        return false;
    readUsage(completion);
    const auto choices = completion.value(QStringLiteral("choices")).toArray();
    if (choices.isEmpty())
        return true;
    return readChoice(choices.first().toObject(), QStringLiteral("message"));
}

bool UpstreamNormalizer::readChoice(const QJsonObject& choice, const QString& deltaKey) {
    const auto delta = choice.value(deltaKey).toObject();
    const auto content = delta.value(QStringLiteral("content"));
    if (content.isString() && !content.toString().isEmpty() && !m_sink.content(content.toString()))
        return false;
    const auto calls = delta.value(QStringLiteral("tool_calls")).toArray();
    for (qsizetype i = 0; i < calls.size(); ++i)
        if (!toolCallDelta(calls[i].toObject(), int(i)))
            return false;
    const auto finish = choice.value(QStringLiteral("finish_reason"));
    if (finish.isString() && !finish.toString().isEmpty())
        m_finish = finish.toString();
    return true;
}

bool UpstreamNormalizer::toolCallDelta(const QJsonObject& delta, int position) {
    const auto upstreamIndex = delta.value(QStringLiteral("index")).toInt(position);
    auto it = m_calls.find(upstreamIndex);
    if (it == m_calls.end())
        it = m_calls.insert(upstreamIndex, Call{});
    auto& call = *it;
    const auto function = delta.value(QStringLiteral("function")).toObject();
    const auto id = delta.value(QStringLiteral("id")).toString();
    if (!call.started && !id.isEmpty())
        call.id = id;
    if (!call.started)
        call.name += function.value(QStringLiteral("name")).toString();
    const auto arguments = function.value(QStringLiteral("arguments")).toString();

    if (!call.started) {
        call.pendingArguments += arguments;
        if (call.name.isEmpty())
            return true; // arguments before a name: wait for it
        if (call.id.isEmpty())
            call.id = QStringLiteral("call_") + Pkce::randomText(12);
        // Numbered as they start, so a nameless call never leaves a gap.
        call.index = m_nextIndex++;
        call.started = true;
        m_startedCalls = true;
        if (!m_sink.toolCallStart(call.index, call.id, call.name))
            return false;
        const auto pending = std::exchange(call.pendingArguments, {});
        return pending.isEmpty() || m_sink.toolCallArguments(call.index, pending);
    }
    return arguments.isEmpty() || m_sink.toolCallArguments(call.index, arguments);
}

QString UpstreamNormalizer::finishReason() const {
    auto reason =
        m_finish.value_or(m_startedCalls ? QStringLiteral("tool_calls") : QStringLiteral("stop"));
    if (m_startedCalls && (reason == u"stop" || reason == u"function_call"))
        reason = QStringLiteral("tool_calls");
    if (!m_startedCalls && reason == u"tool_calls")
        reason = QStringLiteral("stop");
    return reason;
}

} // namespace kestrolan::devservice
