// Saved chats on the account: list, load, save and delete.
#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "support/uuid_text.h"

namespace kestrolan {

static_assert(APIClient::maxSavedChatBytes == SavedConversation::maxEncodedBytes);

namespace {

QString chatPath(const QUuid& id) {
    return u"/api/chats/" + uuidText(id);
}

} // namespace

QCoro::Task<QList<SavedChatSummary>> APIClient::chats(std::stop_token stop) {
    auto prepared = co_await request(QStringLiteral("/api/chats"), "GET", {}, true);
    const auto body = co_await data(std::move(prepared), stop);
    co_return SavedChatSummary::decodeList(body);
}

QCoro::Task<SavedConversation> APIClient::chat(QUuid id, std::stop_token stop) {
    auto prepared = co_await request(chatPath(id), "GET", {}, true);
    const auto body = co_await data(std::move(prepared), stop);
    co_return SavedConversation::decode(body);
}

QCoro::Task<SavedChatSummary> APIClient::saveChat(QUuid id, SavedConversation conversation,
                                                  bool savingAllowed, std::stop_token stop) {
    if (!savingAllowed)
        throw ClientError(ClientError::Kind::zeroRetention);
    auto body = conversation.encoded();
    // An oversized document is refused with the size error before its other checks.
    if (body.size() > maxSavedChatBytes)
        throw ClientError(ClientError::Kind::responseTooLarge);
    conversation.validate();
    auto prepared = co_await request(chatPath(id), "PUT", std::move(body), true);
    const auto answer = co_await data(std::move(prepared), stop);
    co_return SavedChatSummary::decode(answer);
}

QCoro::Task<void> APIClient::deleteChat(QUuid id, std::stop_token stop) {
    auto prepared = co_await request(chatPath(id), "DELETE", {}, true);
    co_await data(std::move(prepared), stop);
}

} // namespace kestrolan
