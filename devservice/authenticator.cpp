#include "authenticator.h"

#include "account_store.h"
#include "api_exception.h"
#include "api_request.h"
#include "session_tokens.h"

namespace kestrolan::devservice {

namespace {

ApiException unauthorized(QString message, QString code) {
    return ApiException(401, std::move(message), QStringLiteral("authentication_error"),
                        std::move(code));
}

} // namespace

Authenticator::Authenticator(SessionTokens& tokens, AccountStore& accounts)
    : m_tokens(tokens)
    , m_accounts(accounts) {}

std::optional<QString> Authenticator::bearerToken(const ApiRequest& request) {
    const auto header = QString::fromUtf8(request.header("authorization")).trimmed();
    const auto space = header.indexOf(u' ');
    if (space < 0 || header.first(space).compare(u"Bearer", Qt::CaseInsensitive) != 0)
        return std::nullopt;
    const auto token = header.sliced(space + 1).trimmed();
    if (token.isEmpty())
        return std::nullopt;
    return token;
}

Account Authenticator::require(const ApiRequest& request) {
    const auto token = bearerToken(request);
    if (!token)
        throw unauthorized(QStringLiteral("This request needs a bearer token. Sign in first."),
                           QStringLiteral("missing_token"));
    const auto accountId = m_tokens.authenticate(*token);
    if (!accountId)
        throw unauthorized(
            QStringLiteral("The bearer token is unknown, expired or revoked. Sign in again."),
            QStringLiteral("invalid_token"));
    const auto account = m_accounts.find(*accountId);
    if (!account)
        throw unauthorized(QStringLiteral("The account of this token no longer exists."),
                           QStringLiteral("invalid_token"));
    return *account;
}

} // namespace kestrolan::devservice
