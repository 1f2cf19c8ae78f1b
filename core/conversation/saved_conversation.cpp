#include "conversation/saved_conversation.h"

#include "service/client_error.h"
#include "tools/text_attachments.h"
#include "tools/tool_operation.h"
#include "tools/tool_result.h"

#include <QSet>
#include <algorithm>

namespace kestrolan {

namespace {

[[noreturn]] void refuse() {
    throw ClientError(ClientError::Kind::invalidResponse);
}

bool hasAny(const auto& optionalList) {
    return optionalList && !optionalList->isEmpty();
}

// Results for the calls of `asked` that got none, in the order the calls were made.
void closeUnanswered(const ChatMessage* asked, const QSet<QString>& answered,
                     QList<ChatMessage>& messages) {
    if (!asked)
        return;
    for (const auto& call : *asked->toolCalls) {
        if (!answered.contains(call.id)) {
            messages.append(ChatMessage{.role = ChatMessage::Role::tool,
                                        .content = ToolResult::cancelled(),
                                        .toolCallID = call.id});
        }
    }
}

} // namespace

QString SavedConversation::Reply::toString(State state) {
    switch (state) {
    case State::complete:
        return QStringLiteral("complete");
    case State::error:
        return QStringLiteral("error");
    case State::stopped:
        return QStringLiteral("stopped");
    }
    Q_UNREACHABLE();
    return {};
}

std::optional<SavedConversation::Reply::State>
SavedConversation::Reply::stateFromString(QStringView text) {
    for (const auto state : {State::complete, State::error, State::stopped}) {
        if (toString(state) == text)
            return state;
    }
    return std::nullopt;
}

void SavedConversation::validate() const {
    if (version && *version != 1 && *version != 2)
        refuse();
    if (turns.size() > maxTurns)
        refuse();
    if (encoded().size() > maxEncodedBytes)
        refuse();
    const bool current = version == currentVersion;
    for (const auto& turn : turns) {
        if (turn.attachments && !TextAttachments::withinLimits(*turn.attachments))
            refuse();
        const bool attached = hasAny(turn.attachments);
        if (turn.user.trimmed().isEmpty() && !attached)
            refuse();
        if (attached && !current)
            refuse();
        for (const auto& reply : turn.replies) {
            if (hasAny(reply.exchanges) && !current)
                refuse();
            if (reply.exchanges)
                completedExchanges(*reply.exchanges);
        }
    }
}

QList<ChatMessage> SavedConversation::completedExchanges(const QList<ChatMessage>& exchanges) {
    if (exchanges.size() > maxExchangeMessages)
        refuse();
    QList<ChatMessage> messages;
    messages.reserve(exchanges.size() + maxCallsPerMessage);
    QSet<QString> callIDs;
    // The assistant message whose calls the following tool messages answer.
    const ChatMessage* asked = nullptr;
    QSet<QString> answered;

    for (const auto& message : exchanges) {
        if (message.role == ChatMessage::Role::assistant) {
            if (!message.toolCalls || message.toolCalls->isEmpty() ||
                message.toolCalls->size() > maxCallsPerMessage || message.toolCallID)
                refuse();
            for (const auto& call : *message.toolCalls) {
                if (callIDs.contains(call.id))
                    refuse();
                callIDs.insert(call.id);
                try {
                    ToolOperation operation(call);
                } catch (const std::exception&) {
                    refuse();
                }
            }
            closeUnanswered(asked, answered, messages);
            messages.append(message);
            asked = &message;
            answered.clear();
        } else if (message.role == ChatMessage::Role::tool) {
            if (!asked || !message.toolCallID || message.toolCalls)
                refuse();
            const auto& id = *message.toolCallID;
            const bool askedFor =
                std::any_of(asked->toolCalls->begin(), asked->toolCalls->end(),
                            [&id](const ToolCall& call) { return call.id == id; });
            if (!askedFor || answered.contains(id))
                refuse();
            answered.insert(id);
            messages.append(message);
        } else {
            refuse();
        }
    }
    closeUnanswered(asked, answered, messages);
    return messages;
}

QList<ChatMessage> SavedConversation::inferenceMessages(int slot) const {
    QList<ChatMessage> messages;
    for (const auto& turn : turns) {
        messages.append(
            ChatMessage{.role = ChatMessage::Role::user,
                        .content = TextAttachments::userContent(
                            turn.user, turn.attachments.value_or(QList<WireAttachment>{}))});
        const auto reply = std::find_if(turn.replies.begin(), turn.replies.end(),
                                        [slot](const Reply& r) { return r.slot == slot; });
        if (reply == turn.replies.end())
            continue;
        if (reply->exchanges)
            messages.append(completedExchanges(*reply->exchanges));
        if (!reply->text.isEmpty())
            messages.append(
                ChatMessage{.role = ChatMessage::Role::assistant, .content = reply->text});
    }
    return messages;
}

} // namespace kestrolan
