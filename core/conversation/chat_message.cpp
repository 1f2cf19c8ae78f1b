#include "conversation/chat_message.h"

#include "support/json_reader.h"

#include <QJsonArray>

namespace kestrolan {

QString ChatMessage::toString(Role role) {
    switch (role) {
    case Role::system:
        return QStringLiteral("system");
    case Role::user:
        return QStringLiteral("user");
    case Role::assistant:
        return QStringLiteral("assistant");
    case Role::tool:
        return QStringLiteral("tool");
    }
    Q_UNREACHABLE();
    return {};
}

std::optional<ChatMessage::Role> ChatMessage::roleFromString(QStringView text) {
    for (const auto role : {Role::system, Role::user, Role::assistant, Role::tool}) {
        if (toString(role) == text)
            return role;
    }
    return std::nullopt;
}

QJsonObject ChatMessage::toJson() const {
    QJsonObject object{{QStringLiteral("role"), toString(role)}};
    // An assistant turn that only called tools carries no text: null, not "".
    const bool toolsOnly = role == Role::assistant && content.isEmpty() && toolCalls.has_value();
    object.insert(QStringLiteral("content"), toolsOnly ? QJsonValue(QJsonValue::Null) : content);
    if (toolCalls) {
        QJsonArray calls;
        for (const auto& call : *toolCalls)
            calls.append(call.toJson());
        object.insert(QStringLiteral("tool_calls"), calls);
    }
    if (toolCallID)
        object.insert(QStringLiteral("tool_call_id"), *toolCallID);
    return object;
}

ChatMessage ChatMessage::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    ChatMessage message;
    const auto role = roleFromString(reader.string(u"role"));
    if (!role)
        throw JsonReader::FieldError(QStringLiteral("role"));
    message.role = *role;
    message.content = reader.optionalString(u"content").value_or(QString());
    if (const auto calls = reader.optionalArray(u"tool_calls")) {
        QList<ToolCall> decoded;
        decoded.reserve(calls->size());
        for (const auto& call : *calls) {
            if (!call.isObject())
                throw JsonReader::FieldError(QStringLiteral("tool_calls"));
            decoded.append(ToolCall::fromJson(call.toObject()));
        }
        message.toolCalls = std::move(decoded);
    }
    message.toolCallID = reader.optionalString(u"tool_call_id");
    return message;
}

} // namespace kestrolan
