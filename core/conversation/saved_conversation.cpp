#include "conversation/saved_conversation.h"

#include "service/client_error.h"
#include "support/enum_names.h"
#include "tools/text_attachments.h"
#include "tools/tool_operation.h"
#include "tools/tool_result.h"

#include <QSet>
#include <algorithm>

namespace kestrolan {

namespace {

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

namespace {

constexpr EnumNames replyStateNames{std::array{
    std::pair{SavedConversation::Reply::State::complete, u"complete"},
    std::pair{SavedConversation::Reply::State::error, u"error"},
    std::pair{SavedConversation::Reply::State::stopped, u"stopped"},
}};

} // namespace

QString SavedConversation::Reply::toString(State state) {
    return replyStateNames.name(state);
}

std::optional<SavedConversation::Reply::State>
SavedConversation::Reply::stateFromString(QStringView text) {
    return replyStateNames.value(text);
}

void SavedConversation::validate() const {
    if (version && *version != 1 && *version != 2)
        ClientError::refuse();
    if (turns.size() > maxTurns)
        ClientError::refuse();
    if (encoded().size() > maxEncodedBytes)
        ClientError::refuse();
    const bool current = version == currentVersion;
    for (const auto& turn : turns) {
        if (turn.attachments && !TextAttachments::withinLimits(*turn.attachments))
            ClientError::refuse();
        const bool attached = hasAny(turn.attachments);
        if (turn.user.trimmed().isEmpty() && !attached)
            ClientError::refuse();
        if (attached && !current)
            ClientError::refuse();
        for (const auto& reply : turn.replies) {
            if (hasAny(reply.exchanges) && !current)
                ClientError::refuse();
            if (reply.exchanges)
                completedExchanges(*reply.exchanges);
        }
    }
}

QList<ChatMessage> SavedConversation::completedExchanges(const QList<ChatMessage>& exchanges) {
    if (exchanges.size() > maxExchangeMessages)
        ClientError::refuse();
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
                ClientError::refuse();
            for (const auto& call : *message.toolCalls) {
                if (callIDs.contains(call.id))
                    ClientError::refuse();
                callIDs.insert(call.id);
                try {
                    ToolOperation operation(call);
                } catch (const std::exception&) {
                    ClientError::refuse();
                }
            }
            closeUnanswered(asked, answered, messages);
            messages.append(message);
            asked = &message;
            answered.clear();
        } else if (message.role == ChatMessage::Role::tool) {
            if (!asked || !message.toolCallID || message.toolCalls)
                ClientError::refuse();
            const auto& id = *message.toolCallID;
            const bool askedFor =
                std::any_of(asked->toolCalls->begin(), asked->toolCalls->end(),
                            [&id](const ToolCall& call) { return call.id == id; });
            if (!askedFor || answered.contains(id))
                ClientError::refuse();
            answered.insert(id);
            messages.append(message);
        } else {
            ClientError::refuse();
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
