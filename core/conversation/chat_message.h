#pragma once

#include "conversation/tool_call.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// One message of a chat request. `id` is local identity only and never leaves the app.
struct ChatMessage {
    enum class Role { system, user, assistant, tool };

    QUuid id = QUuid::createUuid();
    Role role = Role::user;
    QString content;
    std::optional<QList<ToolCall>> toolCalls;
    std::optional<QString> toolCallID;

    bool operator==(const ChatMessage&) const = default;

    QJsonObject toJson() const;
    // A decoded message gets a fresh id. Throws JsonReader::FieldError on a malformed object.
    static ChatMessage fromJson(const QJsonObject& object);

    static QString toString(Role role);
    static std::optional<Role> roleFromString(QStringView text);
};

} // namespace kestrolan
