#include "service/api_client.h"
#include "web/web_search_response.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace kestrolan {

QCoro::Task<WebSearchResponse> APIClient::webSearch(QString query, std::stop_token stop) {
    const QJsonObject body{{QStringLiteral("query"), query}};
    auto prepared = co_await request(QStringLiteral("/api/web/search"), "POST",
                                     QJsonDocument(body).toJson(QJsonDocument::Compact), true);
    // data() bounds the answer at maxResponseBytes like every other response.
    const auto answer = co_await data(std::move(prepared), stop);
    co_return WebSearchResponse::fromJson(answer);
}

} // namespace kestrolan
