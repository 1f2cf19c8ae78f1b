#include "conversation/chat_request.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace kestrolan {

QJsonObject ChatRequest::toJson() const {
    QJsonArray encodedMessages;
    for (const auto& message : messages)
        encodedMessages.append(message.toJson());
    QJsonObject object{{QStringLiteral("model"), model},
                       {QStringLiteral("messages"), encodedMessages}};
    if (maxTokens)
        object.insert(QStringLiteral("max_tokens"), *maxTokens);
    if (temperature)
        object.insert(QStringLiteral("temperature"), *temperature);
    if (tools) {
        QJsonArray definitions;
        for (const auto& tool : *tools)
            definitions.append(tool.toJson());
        object.insert(QStringLiteral("tools"), definitions);
    }
    if (toolChoice)
        object.insert(QStringLiteral("tool_choice"), *toolChoice);
    if (parallelToolCalls)
        object.insert(QStringLiteral("parallel_tool_calls"), *parallelToolCalls);
    return object;
}

QByteArray ChatRequest::encoded() const {
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact);
}

} // namespace kestrolan
