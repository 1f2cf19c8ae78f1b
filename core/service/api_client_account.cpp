#include "account/account.h"
#include "account/catalog.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "support/json_reader.h"
#include "support/uuid_text.h"

#include <QJsonDocument>

namespace kestrolan {

namespace {

// A 2xx body read strictly as the operation's type; anything else is unreadable.
template <typename Decode>
auto decodeBody(const QByteArray& body, Decode decode) {
    QJsonParseError parseError;
    const auto document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        throw ClientError(ClientError::Kind::invalidResponse);
    try {
        return decode(document.object());
    } catch (const JsonReader::FieldError&) {
        throw ClientError(ClientError::Kind::invalidResponse);
    }
}

APIClient::DesktopToken desktopToken(const QJsonObject& object) {
    const JsonReader reader(object);
    APIClient::DesktopToken token;
    token.token = reader.string(u"token");
    token.expiresAt = reader.string(u"expires_at");
    const JsonReader identity(reader.object(u"account"));
    if (const auto id = identity.optionalString(u"id")) {
        token.account.id = uuidFromText(*id);
        if (!token.account.id)
            throw JsonReader::FieldError(QStringLiteral("id"));
    }
    token.account.email = identity.string(u"email");
    return token;
}

} // namespace

QCoro::Task<APIClient::DesktopToken>
APIClient::exchangeCode(QString code, QString verifier, QString deviceName, std::stop_token stop) {
    const QJsonObject body{
        {QStringLiteral("code"), code},
        {QStringLiteral("code_verifier"), verifier},
        {QStringLiteral("device_name"), deviceName},
    };
    auto prepared = co_await request(QStringLiteral("/api/desktop/token"), "POST",
                                     QJsonDocument(body).toJson(QJsonDocument::Compact), false);
    const auto answer = co_await data(std::move(prepared), stop);
    co_return decodeBody(answer, desktopToken);
}

QCoro::Task<Account> APIClient::account(std::stop_token stop) {
    auto prepared = co_await request(QStringLiteral("/api/account"), "GET", {}, true);
    const auto answer = co_await data(std::move(prepared), stop);
    co_return decodeBody(answer, &Account::fromJson);
}

QCoro::Task<Catalog> APIClient::catalog(std::stop_token stop) {
    auto prepared = co_await request(QStringLiteral("/api/catalog"), "GET", {}, false);
    const auto answer = co_await data(std::move(prepared), stop);
    co_return decodeBody(answer, &Catalog::fromJson);
}

} // namespace kestrolan
