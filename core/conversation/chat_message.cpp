#include "conversation/chat_message.h"

#include "support/enum_names.h"
#include "support/json_reader.h"

#include <QJsonArray>

namespace kestrolan {

namespace {

constexpr EnumNames roleNames{std::array{
    std::pair{ChatMessage::Role::system, u"system"},
    std::pair{ChatMessage::Role::user, u"user"},
    std::pair{ChatMessage::Role::assistant, u"assistant"},
    std::pair{ChatMessage::Role::tool, u"tool"},
}};

} // namespace

QString ChatMessage::toString(Role role) {
    return roleNames.name(role);
}

std::optional<ChatMessage::Role> ChatMessage::roleFromString(QStringView text) {
    return roleNames.value(text);
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
