#include "auth_endpoints.h"

#include "account_store.h"
#include "api_exception.h"
#include "authenticator.h"
#include "authorization_codes.h"
#include "pkce.h"
#include "request_json.h"
#include "session_tokens.h"
#include "sign_in_account.h"

#include <QUrl>

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumStateLength = 1024;
constexpr qsizetype maximumDeviceNameLength = 256;

QString encoded(const QString& value) {
    return QString::fromLatin1(QUrl::toPercentEncoding(value));
}

QString page(const QString& title, const QString& body) {
    return QStringLiteral("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                          "<meta name=\"viewport\" content=\"width=device-width\">"
                          "<title>") +
           title.toHtmlEscaped() +
           QStringLiteral("</title><style>"
                          "body{font-family:system-ui,sans-serif;max-width:30em;margin:4em auto;"
                          "padding:0 1em;color:#222}"
                          "button{font-size:1em;padding:.5em 1.5em;margin-right:.5em}"
                          ".muted{color:#666;font-size:.9em}</style></head><body>") +
           body + QStringLiteral("</body></html>\n");
}

ApiResponse badRequestPage(const QString& reason) {
    return ApiResponse::html(
        400,
        page(QStringLiteral("Sign-in request refused"),
             QStringLiteral("<h1>Sign-in request refused</h1><p>") + reason.toHtmlEscaped() +
                 QStringLiteral("</p><p class=\"muted\">Start sign-in again from the Kestrolan "
                                "app.</p>")));
}

} // namespace

AuthEndpoints::AuthEndpoints(AuthorizationCodes& codes, SessionTokens& tokens,
                             AccountStore& accounts, SignInAccount& signInAccount,
                             Authenticator& authenticator, bool autoApprove)
    : m_codes(codes)
    , m_tokens(tokens)
    , m_accounts(accounts)
    , m_signInAccount(signInAccount)
    , m_authenticator(authenticator)
    , m_autoApprove(autoApprove) {}

ApiResponse AuthEndpoints::authorize(const ApiRequest& request) {
    const auto state = request.parameter(QStringLiteral("state")).value_or(QString());
    const auto challenge = request.parameter(QStringLiteral("code_challenge")).value_or(QString());
    const auto method =
        request.parameter(QStringLiteral("code_challenge_method")).value_or(QString());
    if (state.isEmpty() || state.size() > maximumStateLength)
        return badRequestPage(QStringLiteral("The request needs a state of 1 to 1024 characters."));
    if (method != u"S256")
        return badRequestPage(QStringLiteral("Only the S256 code challenge method is supported."));
    if (!Pkce::isValidChallenge(challenge))
        return badRequestPage(
            QStringLiteral("The code challenge must be 43 characters of unpadded base64url."));

    const auto email = m_signInAccount.email();
    if (m_autoApprove)
        return approve(state, challenge, email);

    const auto consent = m_codes.beginConsent(state, challenge, email);
    return ApiResponse::html(
        200,
        page(QStringLiteral("Sign in to Kestrolan"),
             QStringLiteral("<h1>Sign in to Kestrolan</h1>"
                            "<p>The Kestrolan app on this computer asks to use the account "
                            "<strong>") +
                 email.toHtmlEscaped() +
                 QStringLiteral("</strong>.</p>"
                                "<form method=\"post\" action=\"/desktop/authorize\">"
                                "<input type=\"hidden\" name=\"request\" value=\"") +
                 consent.toHtmlEscaped() +
                 QStringLiteral("\">"
                                "<button type=\"submit\" name=\"decision\" value=\"allow\">Allow"
                                "</button>"
                                "<button type=\"submit\" name=\"decision\" value=\"deny\">Deny"
                                "</button></form>"
                                "<p class=\"muted\">Local development service.</p>")));
}

ApiResponse AuthEndpoints::decide(const ApiRequest& request) {
    const auto decision = request.parameter(QStringLiteral("decision")).value_or(QString());
    if (decision != u"allow" && decision != u"deny")
        return badRequestPage(QStringLiteral("Choose Allow or Deny."));
    const auto consent =
        m_codes.takeConsent(request.parameter(QStringLiteral("request")).value_or(QString()));
    if (!consent)
        return badRequestPage(QStringLiteral("This sign-in page has expired or was already used."));
    if (decision == u"deny")
        return ApiResponse::redirect(callbackUrl + QStringLiteral("?error=access_denied&state=") +
                                     encoded(consent->state));
    return approve(consent->state, consent->challenge, consent->email);
}

ApiResponse AuthEndpoints::approve(const QString& state, const QString& challenge,
                                   const QString& email) {
    const auto account = m_accounts.findByEmail(email);
    if (!account)
        throw ApiException(500, QStringLiteral("The account to sign in as is missing."),
                           QStringLiteral("server_error"), QStringLiteral("internal_error"));
    const auto code = m_codes.issue(account->id, challenge);
    return ApiResponse::redirect(callbackUrl + QStringLiteral("?code=") + encoded(code) +
                                 QStringLiteral("&state=") + encoded(state));
}

ApiResponse AuthEndpoints::exchange(const ApiRequest& request) {
    const auto body = RequestJson::parse(request.body);
    body.rejectUnknownKeys(
        {QStringLiteral("code"), QStringLiteral("code_verifier"), QStringLiteral("device_name")});
    const auto code = body.string(QStringLiteral("code"));
    const auto verifier = body.string(QStringLiteral("code_verifier"));
    const auto deviceName = body.string(QStringLiteral("device_name"));
    if (code.isEmpty())
        throw ApiException::invalidRequest(QStringLiteral("\"code\" must not be empty."),
                                           QStringLiteral("code"));
    if (!Pkce::isValidVerifier(verifier))
        throw ApiException::invalidRequest(
            QStringLiteral("\"code_verifier\" must be 43 to 128 characters of A-Z, a-z, 0-9, "
                           "\"-\", \".\", \"_\" and \"~\"."),
            QStringLiteral("code_verifier"));
    if (deviceName.size() > maximumDeviceNameLength)
        throw ApiException::invalidRequest(
            QStringLiteral("\"device_name\" must be at most 256 characters."),
            QStringLiteral("device_name"));

    const auto spentOrUnknown = [] {
        return ApiException::invalidRequest(
            QStringLiteral("The sign-in code is unknown or was already used. Start sign-in again."),
            QStringLiteral("code"), QStringLiteral("invalid_grant"));
    };
    const auto redeemed = m_codes.redeem(code, verifier);
    if (const auto* replay = std::get_if<AuthorizationCodes::Replay>(&redeemed)) {
        // The code leaked: whoever holds a token issued from it may not be who signed in.
        for (const auto& digest : replay->tokens)
            m_tokens.revokeDigest(digest);
        throw spentOrUnknown();
    }
    if (const auto* failure = std::get_if<AuthorizationCodes::Failure>(&redeemed)) {
        switch (*failure) {
        case AuthorizationCodes::Failure::unknown:
            throw spentOrUnknown();
        case AuthorizationCodes::Failure::expired:
            throw ApiException::invalidRequest(
                QStringLiteral("The sign-in code has expired. Start sign-in again."),
                QStringLiteral("code"), QStringLiteral("invalid_grant"));
        case AuthorizationCodes::Failure::verifierMismatch:
            throw ApiException::invalidRequest(
                QStringLiteral("The code verifier does not match this sign-in. Start sign-in "
                               "again."),
                QStringLiteral("code"), QStringLiteral("invalid_grant"));
        }
    }

    const auto accountId = std::get<QString>(redeemed);
    const auto account = m_accounts.find(accountId);
    if (!account)
        throw ApiException::invalidRequest(QStringLiteral("The account of this sign-in is gone."),
                                           QStringLiteral("code"), QStringLiteral("invalid_grant"));
    const auto issued = m_tokens.issue(account->id, deviceName);
    if (!m_codes.recordToken(code, issued.digest)) {
        // Presented again while this exchange ran.
        m_tokens.revokeDigest(issued.digest);
        throw spentOrUnknown();
    }
    return ApiResponse::json(
        200,
        QJsonObject{
            {QStringLiteral("token"), issued.token},
            {QStringLiteral("expires_at"), issued.expiresAt.toString(Qt::ISODate)},
            {QStringLiteral("account"), QJsonObject{{QStringLiteral("id"), account->id},
                                                    {QStringLiteral("email"), account->email}}},
        });
}

ApiResponse AuthEndpoints::logout(const ApiRequest& request) {
    m_authenticator.require(request);
    m_tokens.revoke(*Authenticator::bearerToken(request));
    return ApiResponse::json(200, QJsonObject{});
}

} // namespace kestrolan::devservice
