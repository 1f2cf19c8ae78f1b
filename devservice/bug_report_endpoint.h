#pragma once

#include "api_request.h"
#include "api_response.h"

namespace kestrolan::devservice {

class Authenticator;
class Database;

// POST /api/bug-reports: stores the report as sent and answers with its receipt {"id"}. A
// report that carries its own "id" (a UUID) keeps it, and sending it again is answered with the
// same receipt.
class BugReportEndpoint {
public:
    static constexpr qsizetype maximumBytes = 29'360'128; // 28 MiB

    BugReportEndpoint(Authenticator& authenticator, Database& database);

    ApiResponse handle(const ApiRequest& request);

private:
    Authenticator& m_authenticator;
    Database& m_database;
};

} // namespace kestrolan::devservice
