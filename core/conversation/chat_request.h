#pragma once

#include "conversation/chat_message.h"
#include "tools/tool_definition.h"

#include <QByteArray>
#include <QJsonObject>

namespace kestrolan {

// The body of one chat completion. The endpoint always streams, so no key asks for it.
struct ChatRequest {
    QString model;
    QList<ChatMessage> messages;
    std::optional<int> maxTokens;
    std::optional<double> temperature;
    std::optional<QList<ToolDefinition>> tools;
    std::optional<QString> toolChoice;
    std::optional<bool> parallelToolCalls;

    QJsonObject toJson() const;
    QByteArray encoded() const;
};

} // namespace kestrolan
