#include "web/web_search_response.h"

#include "service/client_error.h"
#include "support/json_reader.h"
#include "tools/tool_result.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace kestrolan {

namespace {

WebSearchResponse decode(const QJsonObject& object) {
    const JsonReader reader(object);
    WebSearchResponse response;
    response.query = reader.string(u"query");
    for (const auto& value : reader.array(u"results")) {
        if (!value.isObject())
            throw JsonReader::FieldError(QStringLiteral("results"));
        const JsonReader result(value.toObject());
        response.results.append(WebSearchResult{result.string(u"title"), result.string(u"url"),
                                                result.string(u"snippet")});
    }
    if (const auto billing = reader.optionalObject(u"billing"))
        response.billing = BillingUsage::fromJson(*billing);
    return response;
}

} // namespace

WebSearchResponse WebSearchResponse::fromJson(const QByteArray& body) {
    QJsonParseError parseError;
    const auto document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        ClientError::refuse();
    try {
        return decode(document.object());
    } catch (const JsonReader::FieldError&) {
        ClientError::refuse();
    }
}

QString WebSearchResponse::toolResultText() const {
    QJsonArray items;
    for (const auto& result : results)
        items.append(QJsonObject{{QStringLiteral("title"), result.title},
                                 {QStringLiteral("url"), result.url},
                                 {QStringLiteral("snippet"), result.snippet}});
    QJsonObject object{{QStringLiteral("query"), query},
                       {QStringLiteral("untrusted"), true},
                       {QStringLiteral("truncated"), false}};
    // Whole results are dropped from the end until the rest fits; none is cut in half.
    for (;;) {
        object.insert(QStringLiteral("results"), items);
        const auto serialized = QJsonDocument(object).toJson(QJsonDocument::Compact);
        if (serialized.size() <= ToolResult::maxBytes || items.isEmpty())
            return ToolResult::bounded(serialized);
        items.removeLast();
        object.insert(QStringLiteral("truncated"), true);
    }
}

} // namespace kestrolan
