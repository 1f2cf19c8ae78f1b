#include "web_search_endpoint.h"

#include "api_exception.h"
#include "authenticator.h"
#include "hold_guard.h"
#include "money.h"
#include "request_json.h"
#include "search_provider.h"

#include <QJsonArray>

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumQueryBytes = 8'192;

} // namespace

WebSearchEndpoint::WebSearchEndpoint(Authenticator& authenticator, Ledger& ledger,
                                     SearchProvider& provider)
    : m_authenticator(authenticator)
    , m_ledger(ledger)
    , m_provider(provider) {}

ApiResponse WebSearchEndpoint::handle(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    const auto body = RequestJson::parse(request.body);
    body.rejectUnknownKeys({QStringLiteral("query")});
    const auto query = body.string(QStringLiteral("query"));
    if (query.trimmed().isEmpty() || query.toUtf8().size() > maximumQueryBytes ||
        query.contains(QChar(0)))
        throw ApiException::invalidRequest(
            QStringLiteral("\"query\" must hold text, at most 8192 bytes and no NUL character."),
            QStringLiteral("query"));

    const auto holdId = m_ledger.hold(account.id, pricePerSearch, QStringLiteral("web search"));
    if (!holdId)
        throw ApiException(402,
                           QStringLiteral("The account's available credit does not cover a web "
                                          "search."),
                           QStringLiteral("billing_error"), QStringLiteral("insufficient_credit"));
    HoldGuard hold(m_ledger, *holdId, pricePerSearch);

    const auto answer = m_provider.search(query);
    if (const auto* failure = std::get_if<QString>(&answer))
        throw ApiException(502, *failure, QStringLiteral("server_error"),
                           QStringLiteral("search_failed"));
    const auto charged = hold.settle(
        pricePerSearch, Ledger::Usage{.model = {}, .description = QStringLiteral("Web search")});

    QJsonArray results;
    for (const auto& result : std::get<QList<SearchResult>>(answer))
        results.append(QJsonObject{{QStringLiteral("title"), result.title},
                                   {QStringLiteral("url"), result.url},
                                   {QStringLiteral("snippet"), result.snippet}});
    return ApiResponse::json(
        200, QJsonObject{
                 {QStringLiteral("query"), query},
                 {QStringLiteral("results"), results},
                 {QStringLiteral("billing"),
                  QJsonObject{{QStringLiteral("state"), QStringLiteral("settled")},
                              {QStringLiteral("charged_usd"), Money::format(charged)}}},
             });
}

} // namespace kestrolan::devservice
