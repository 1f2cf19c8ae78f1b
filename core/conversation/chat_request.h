#pragma once

#include "conversation/chat_message.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>

namespace kestrolan {

// The body of one chat completion. The endpoint always streams, so no key asks for it.
struct ChatRequest {
    QString model;
    QList<ChatMessage> messages;
    std::optional<int> maxTokens;
    std::optional<double> temperature;
    // Tool definitions as the model sees them (name, description, parameter schema).
    std::optional<QJsonArray> tools;
    std::optional<QString> toolChoice;
    std::optional<bool> parallelToolCalls;

    QJsonObject toJson() const;
    QByteArray encoded() const;
};

} // namespace kestrolan
