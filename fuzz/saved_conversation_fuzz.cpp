// Saved chats come back from the service and are continued as the model's context. Beyond not
// crashing, a body is either refused as unreadable or is a document that validates again after
// a round trip, and whose tool transcripts close every call exactly once.
//
//   build-fuzz/bin/fuzz-saved-conversation -dict=fuzz/saved_conversation.dict \
//       fuzz/corpus/saved_conversation

#include "conversation/saved_conversation.h"
#include "service/client_error.h"

#include <QSet>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace kestrolan;

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

void checkTranscript(const QList<ChatMessage>& exchanges) {
    const auto completed = SavedConversation::completedExchanges(exchanges);
    require(completed.size() >= exchanges.size(), "messages lost");
    QSet<QString> open;
    for (const auto& message : completed) {
        if (message.role == ChatMessage::Role::assistant) {
            require(open.isEmpty(), "a round left unanswered");
            for (const auto& call : *message.toolCalls)
                open.insert(call.id);
        } else {
            require(message.role == ChatMessage::Role::tool && message.toolCallID &&
                        open.remove(*message.toolCallID),
                    "a result without its call");
        }
    }
    require(open.isEmpty(), "the last round left unanswered");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    std::optional<SavedConversation> conversation;
    try {
        conversation.emplace(SavedConversation::decode(body));
    } catch (const ClientError& error) {
        require(error.kind() == ClientError::Kind::invalidResponse, "unexpected client error");
        return 0;
    }

    const QByteArray encoded = conversation->encoded();
    require(encoded.size() <= SavedConversation::maxEncodedBytes, "size bound");
    require(conversation->turns.size() <= SavedConversation::maxTurns, "turn bound");
    try {
        const auto again = SavedConversation::decode(encoded);
        require(again.toJson() == conversation->toJson(), "round trip changed the document");
    } catch (const ClientError&) {
        require(false, "a valid document failed after a round trip");
    }

    QSet<int> slots;
    for (const auto& turn : conversation->turns) {
        for (const auto& reply : turn.replies) {
            slots.insert(reply.slot);
            if (reply.exchanges)
                checkTranscript(*reply.exchanges);
        }
    }
    for (const int slot : slots) {
        const auto messages = conversation->inferenceMessages(slot);
        require(messages.size() >= conversation->turns.size(), "a user message lost");
    }
    return 0;
}
