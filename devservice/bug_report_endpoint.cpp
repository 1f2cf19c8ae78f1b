#include "bug_report_endpoint.h"

#include "api_exception.h"
#include "authenticator.h"
#include "database.h"
#include "request_json.h"

#include <QDateTime>
#include <QUuid>

namespace kestrolan::devservice {

BugReportEndpoint::BugReportEndpoint(Authenticator& authenticator, Database& database)
    : m_authenticator(authenticator)
    , m_database(database) {}

ApiResponse BugReportEndpoint::handle(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    if (request.body.size() > maximumBytes)
        throw ApiException(413, QStringLiteral("A bug report may be at most 28 MiB."),
                           QStringLiteral("invalid_request_error"),
                           QStringLiteral("request_too_large"));
    const auto json = RequestJson::parse(request.body);
    auto id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    if (const auto given = json.optionalString(QStringLiteral("id"))) {
        const auto uuid = QUuid::fromString(*given);
        if (uuid.isNull() || given->size() != 36)
            throw ApiException::invalidRequest(QStringLiteral("\"id\" must be a UUID."),
                                               QStringLiteral("id"));
        id = uuid.toString(QUuid::WithoutBraces);
    }

    const auto stored = m_database.transaction([&](QSqlDatabase& connection) {
        auto existing = Database::execute(
            connection, QStringLiteral("SELECT account_id FROM bug_reports WHERE id = ?"), {id});
        if (existing.next())
            return existing.value(0).toString() == account.id;
        Database::execute(connection,
                          QStringLiteral("INSERT INTO bug_reports (id, account_id, body, "
                                         "received_at) VALUES (?, ?, ?, ?)"),
                          {id, account.id, request.body, QDateTime::currentMSecsSinceEpoch()});
        return true;
    });
    if (!stored)
        throw ApiException(409,
                           QStringLiteral("Another account already sent a report with this id."),
                           QStringLiteral("invalid_request_error"), QStringLiteral("conflict"),
                           QStringLiteral("id"));
    return ApiResponse::json(200, QJsonObject{{QStringLiteral("id"), id}});
}

} // namespace kestrolan::devservice
