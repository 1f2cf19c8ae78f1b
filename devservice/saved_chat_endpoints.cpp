#include "saved_chat_endpoints.h"

#include "api_exception.h"
#include "authenticator.h"
#include "saved_chat_store.h"
#include "saved_conversation_check.h"

#include <QJsonArray>
#include <QRegularExpression>

namespace kestrolan::devservice {

namespace {

// The standard text form of a UUID, in either case; stored lower-case.
QString chatId(const ApiRequest& request) {
    static const QRegularExpression form(QStringLiteral(
        "^[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}$"));
    const auto id = request.pathArguments.value(0);
    if (!form.match(id).hasMatch())
        throw ApiException::invalidRequest(QStringLiteral("A chat is named by a UUID."),
                                           QStringLiteral("id"));
    return id.toLower();
}

ApiException chatNotFound() {
    return ApiException::notFound(QStringLiteral("There is no saved chat with this id."),
                                  QStringLiteral("chat_not_found"));
}

} // namespace

SavedChatEndpoints::SavedChatEndpoints(Authenticator& authenticator, SavedChatStore& store)
    : m_authenticator(authenticator)
    , m_store(store) {}

ApiResponse SavedChatEndpoints::list(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    QJsonArray summaries;
    for (const auto& summary : m_store.list(account.id))
        summaries.append(summary.toJson());
    return ApiResponse::json(200, summaries);
}

ApiResponse SavedChatEndpoints::load(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    const auto document = m_store.load(account.id, chatId(request));
    if (!document)
        throw chatNotFound();
    ApiResponse response;
    response.contentType = "application/json";
    response.body = *document;
    return response;
}

ApiResponse SavedChatEndpoints::save(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    const auto id = chatId(request);
    if (account.zeroRetention)
        throw ApiException(403, QStringLiteral("Saving is off while Zero Data Retention is on."),
                           QStringLiteral("invalid_request_error"),
                           QStringLiteral("zero_retention"));
    const auto title = SavedConversationCheck::check(request.body);
    return ApiResponse::json(200, m_store.save(account.id, id, title, request.body).toJson());
}

ApiResponse SavedChatEndpoints::remove(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    if (!m_store.remove(account.id, chatId(request)))
        throw chatNotFound();
    return ApiResponse::json(200, QJsonObject{});
}

} // namespace kestrolan::devservice
