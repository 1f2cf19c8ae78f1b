#include "admin_endpoints.h"

#include "account_store.h"
#include "api_exception.h"
#include "fault_injector.h"
#include "ledger.h"
#include "money.h"
#include "request_json.h"
#include "session_tokens.h"
#include "sign_in_account.h"

#include <algorithm>

namespace kestrolan::devservice {

namespace {

RequestJson bodyOf(const ApiRequest& request) {
    return request.body.trimmed().isEmpty() ? RequestJson(QJsonObject{})
                                            : RequestJson::parse(request.body);
}

constexpr qsizetype maximumEmailLength = 254;

// Addresses are compared in lower case, so "Dev@Localhost" names the development account.
QString emailIn(const RequestJson& json, const QString& key) {
    const auto email = json.string(key).trimmed().toLower();
    const auto at = email.indexOf(u'@');
    const bool wellFormed = email.size() <= maximumEmailLength && at > 0 &&
                            at == email.lastIndexOf(u'@') && at < email.size() - 1 &&
                            std::none_of(email.begin(), email.end(), [](QChar c) {
                                return c.isSpace() || c.category() == QChar::Other_Control;
                            });
    if (!wellFormed)
        json.refuse(key, QStringLiteral("must be an e-mail address of at most 254 characters."));
    return email;
}

FaultInjector::Fault readFault(const RequestJson& json) {
    json.rejectUnknownKeys({QStringLiteral("kind"), QStringLiteral("path"), QStringLiteral("count"),
                            QStringLiteral("status"), QStringLiteral("location"),
                            QStringLiteral("message"), QStringLiteral("code"),
                            QStringLiteral("bytes"), QStringLiteral("content_type"),
                            QStringLiteral("chunk_bytes"), QStringLiteral("interval_ms")});
    using Kind = FaultInjector::Fault::Kind;
    FaultInjector::Fault fault;
    const auto kind = json.string(QStringLiteral("kind"));
    if (kind == u"redirect") {
        fault.kind = Kind::redirect;
        fault.status = 302;
    } else if (kind == u"error-envelope") {
        fault.kind = Kind::errorWithEnvelope;
    } else if (kind == u"error-plain") {
        fault.kind = Kind::errorWithoutEnvelope;
    } else if (kind == u"oversized") {
        fault.kind = Kind::oversizedBody;
        fault.status = 200;
    } else if (kind == u"slow") {
        fault.kind = Kind::slowBody;
    } else {
        throw ApiException::invalidRequest(
            QStringLiteral("\"kind\" must be redirect, error-envelope, error-plain, oversized or "
                           "slow."),
            QStringLiteral("kind"));
    }
    const auto bad = [](const QString& key, const QString& rule) {
        return ApiException::invalidRequest(
            QStringLiteral("\"") + key + QStringLiteral("\" ") + rule, key);
    };
    fault.pathPrefix = json.optionalString(QStringLiteral("path")).value_or(fault.pathPrefix);
    if (!fault.pathPrefix.startsWith(u"/api/"))
        throw bad(QStringLiteral("path"), QStringLiteral("must start with /api/."));
    fault.count = int(json.optionalInteger(QStringLiteral("count")).value_or(1));
    if (fault.count < 1 || fault.count > 1000)
        throw bad(QStringLiteral("count"), QStringLiteral("must be from 1 to 1000."));
    fault.status = int(json.optionalInteger(QStringLiteral("status")).value_or(fault.status));
    if (fault.kind == Kind::redirect && (fault.status < 300 || fault.status > 399))
        throw bad(QStringLiteral("status"), QStringLiteral("must be a 3xx status."));
    if ((fault.kind == Kind::errorWithEnvelope || fault.kind == Kind::errorWithoutEnvelope) &&
        (fault.status < 400 || fault.status > 599))
        throw bad(QStringLiteral("status"), QStringLiteral("must be from 400 to 599."));
    fault.location = json.optionalString(QStringLiteral("location")).value_or(fault.location);
    fault.message = json.optionalString(QStringLiteral("message")).value_or(fault.message);
    fault.code = json.optionalString(QStringLiteral("code")).value_or(fault.code);
    fault.bytes = json.optionalInteger(QStringLiteral("bytes")).value_or(fault.bytes);
    if (fault.bytes < 0 || fault.bytes > 256LL * 1024 * 1024)
        throw bad(QStringLiteral("bytes"), QStringLiteral("must be from 0 to 268435456."));
    fault.contentType = json.optionalString(QStringLiteral("content_type"))
                            .value_or(QString::fromLatin1(fault.contentType))
                            .toLatin1();
    fault.pacing.pieceBytes = json.optionalInteger(QStringLiteral("chunk_bytes")).value_or(1);
    if (fault.pacing.pieceBytes < 1)
        throw bad(QStringLiteral("chunk_bytes"), QStringLiteral("must be positive."));
    fault.pacing.interval = std::chrono::milliseconds(
        json.optionalInteger(QStringLiteral("interval_ms")).value_or(100));
    if (fault.pacing.interval.count() < 0 || fault.pacing.interval.count() > 600'000)
        throw bad(QStringLiteral("interval_ms"), QStringLiteral("must be from 0 to 600000."));
    return fault;
}

} // namespace

AdminEndpoints::AdminEndpoints(AccountStore& accounts, Ledger& ledger, SessionTokens& tokens,
                               FaultInjector& faults, SignInAccount& signInAccount)
    : m_accounts(accounts)
    , m_ledger(ledger)
    , m_tokens(tokens)
    , m_faults(faults)
    , m_signInAccount(signInAccount) {}

QString AdminEndpoints::accountId(const std::optional<QString>& email) {
    const auto account =
        m_accounts.findByEmail(email.value_or(AccountStore::developmentEmail).trimmed().toLower());
    if (!account)
        throw ApiException::notFound(QStringLiteral("There is no account with this email."),
                                     QStringLiteral("account_not_found"));
    return account->id;
}

ApiResponse AdminEndpoints::createAccount(const ApiRequest& request) {
    const auto json = RequestJson::parse(request.body);
    json.rejectUnknownKeys({QStringLiteral("email"), QStringLiteral("balance_usd")});
    const auto email = emailIn(json, QStringLiteral("email"));
    const auto balanceText =
        json.optionalString(QStringLiteral("balance_usd")).value_or(QStringLiteral("0"));
    const auto balance = Money::parse(balanceText);
    if (!balance)
        json.refuse(QStringLiteral("balance_usd"),
                    QStringLiteral("must be decimal dollars with at most six decimals."));
    const auto account = m_accounts.create(email, *balance);
    if (!account)
        throw ApiException(409, QStringLiteral("An account with this email already exists."),
                           QStringLiteral("invalid_request_error"),
                           QStringLiteral("account_exists"), QStringLiteral("email"));
    return ApiResponse::json(201, account->toJson());
}

ApiResponse AdminEndpoints::signInAs(const ApiRequest& request) {
    const auto json = RequestJson::parse(request.body);
    json.rejectUnknownKeys({QStringLiteral("email")});
    const auto email = emailIn(json, QStringLiteral("email"));
    const auto account = m_accounts.findByEmail(email);
    if (!account)
        throw ApiException::notFound(QStringLiteral("There is no account with this email."),
                                     QStringLiteral("account_not_found"));
    m_signInAccount.setEmail(account->email);
    return ApiResponse::json(200, account->toJson());
}

ApiResponse AdminEndpoints::account(const ApiRequest& request) {
    const auto statement =
        m_ledger.statement(accountId(request.parameter(QStringLiteral("email"))));
    if (!statement)
        throw ApiException::notFound(QStringLiteral("There is no account with this email."),
                                     QStringLiteral("account_not_found"));
    return ApiResponse::json(200, *statement);
}

ApiResponse AdminEndpoints::zeroRetention(const ApiRequest& request) {
    const auto json = bodyOf(request);
    json.rejectUnknownKeys({QStringLiteral("enabled"), QStringLiteral("email")});
    const auto enabled = json.optionalBoolean(QStringLiteral("enabled"));
    if (!enabled)
        throw ApiException::invalidRequest(QStringLiteral("\"enabled\" is required."),
                                           QStringLiteral("enabled"));
    const auto id = accountId(json.optionalString(QStringLiteral("email")));
    m_accounts.setZeroRetention(id, *enabled);
    return ApiResponse::json(200, m_accounts.find(id)->toJson());
}

ApiResponse AdminEndpoints::balance(const ApiRequest& request) {
    const auto json = bodyOf(request);
    json.rejectUnknownKeys({QStringLiteral("balance_usd"), QStringLiteral("email")});
    const auto amount = Money::parse(json.string(QStringLiteral("balance_usd")));
    if (!amount)
        throw ApiException::invalidRequest(
            QStringLiteral("\"balance_usd\" must be decimal dollars with at most six decimals."),
            QStringLiteral("balance_usd"));
    const auto id = accountId(json.optionalString(QStringLiteral("email")));
    if (m_ledger.setBalance(id, *amount) == Ledger::BalanceChange::belowHeld)
        throw ApiException(409,
                           QStringLiteral("The balance cannot be set below the amount held for "
                                          "requests in progress."),
                           QStringLiteral("invalid_request_error"), QStringLiteral("conflict"),
                           QStringLiteral("balance_usd"));
    return ApiResponse::json(200, m_accounts.find(id)->toJson());
}

ApiResponse AdminEndpoints::revokeTokens(const ApiRequest& request) {
    const auto json = bodyOf(request);
    json.rejectUnknownKeys({QStringLiteral("email")});
    const auto revoked =
        m_tokens.revokeAll(accountId(json.optionalString(QStringLiteral("email"))));
    return ApiResponse::json(200, QJsonObject{{QStringLiteral("revoked"), revoked}});
}

ApiResponse AdminEndpoints::armFault(const ApiRequest& request) {
    m_faults.arm(readFault(RequestJson::parse(request.body)));
    return ApiResponse::json(200, QJsonObject{{QStringLiteral("armed"), true}});
}

ApiResponse AdminEndpoints::clearFaults(const ApiRequest&) {
    m_faults.clear();
    return ApiResponse::json(200, QJsonObject{{QStringLiteral("cleared"), true}});
}

} // namespace kestrolan::devservice
