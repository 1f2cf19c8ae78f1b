#include "account/pkce.h"

#include "service/client_error.h"

#include <QCryptographicHash>
#include <QUrlQuery>
#include <openssl/err.h>
#include <openssl/rand.h>

namespace kestrolan {

namespace {

QString base64url(const QByteArray& bytes) {
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString randomValue(const PKCE::RandomSource& random) {
    QByteArray bytes(32, Qt::Uninitialized);
    if (const qint32 status = random(reinterpret_cast<unsigned char*>(bytes.data()), 32))
        throw ClientError::keychain(status); // the shared keychain wording, on purpose
    return base64url(bytes);
}

std::optional<QString> firstItem(const QUrlQuery& query, const QString& name) {
    for (const auto& [key, value] : query.queryItems(QUrl::FullyDecoded)) {
        if (key == name)
            return value;
    }
    return std::nullopt;
}

} // namespace

PKCE::PKCE()
    : PKCE(RandomSource(&PKCE::systemRandom)) {}

PKCE::PKCE(const RandomSource& random)
    : verifier(randomValue(random))
    , state(randomValue(random)) {}

qint32 PKCE::systemRandom(unsigned char* bytes, int size) {
    if (RAND_bytes(bytes, size) == 1)
        return 0;
    const auto error = static_cast<qint32>(ERR_get_error() & 0x7fffffff);
    return error != 0 ? error : -1;
}

QString PKCE::challenge(const QString& verifier) {
    return base64url(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256));
}

QUrl PKCE::authorizeURL(const QUrl& base) const {
    QUrl url = base;
    QString path = url.path();
    if (!path.endsWith(u'/'))
        path += u'/';
    url.setPath(path + u"desktop/authorize");
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("state"), state);
    query.addQueryItem(QStringLiteral("code_challenge"), challenge());
    query.addQueryItem(QStringLiteral("code_challenge_method"), QStringLiteral("S256"));
    url.setQuery(query);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        throw ClientError(ClientError::Kind::configuration);
    return url;
}

QString PKCE::code(const QUrl& callback) const {
    if (callback.scheme() != u"kestrolan" || callback.host() != u"auth" ||
        callback.path() != u"/callback")
        throw ClientError(ClientError::Kind::invalidCallback);

    const QUrlQuery query(callback);
    const auto callbackState = firstItem(query, QStringLiteral("state"));
    const auto code = firstItem(query, QStringLiteral("code"));
    const auto error = firstItem(query, QStringLiteral("error"));

    if (!callbackState || *callbackState != state)
        throw ClientError(ClientError::Kind::stateMismatch);
    if (error) {
        throw ClientError(*error == u"access_denied" ? ClientError::Kind::accessDenied
                                                     : ClientError::Kind::invalidCallback);
    }
    if (!code || code->isEmpty())
        throw ClientError(ClientError::Kind::invalidCallback);
    return *code;
}

} // namespace kestrolan
