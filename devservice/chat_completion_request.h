#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QList>
#include <QString>
#include <optional>
#include <vector>

namespace kestrolan::devservice {

// The body of POST /api/chat, checked. The endpoint always streams; a "stream" key is as
// unknown as any other.
struct ChatCompletionRequest {
    struct ToolCall {
        QString id;
        QString type;
        QString name;
        QString arguments;
    };
    struct Message {
        QString role; // system, user, assistant or tool
        QString content;
        std::optional<QList<ToolCall>> toolCalls;
        std::optional<QString> toolCallId;
    };

    QString model;
    std::vector<Message> messages;
    std::optional<qint64> maxTokens;
    std::optional<double> temperature;
    std::optional<QJsonArray> tools;
    std::optional<QString> toolChoice;
    std::optional<bool> parallelToolCalls;
    QJsonArray messagesJson; // as received, for an upstream server
    qsizetype bodyBytes = 0;

    // Throws ApiException (400) naming the first offending field.
    static ChatCompletionRequest parse(const QByteArray& body);

    // The index of the last user message; parse() guarantees there is one.
    std::size_t lastUserIndex() const;
    // Tool results after the last user message: the model already asked for tools this turn.
    int toolResultsSinceLastUser() const;
};

} // namespace kestrolan::devservice
