#include "pkce.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <vector>

namespace kestrolan::devservice {

namespace {

bool isUnreserved(QChar c, bool allowDotAndTilde) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') ||
           c == u'-' || c == u'_' || (allowDotAndTilde && (c == u'.' || c == u'~'));
}

} // namespace

bool Pkce::isValidVerifier(const QString& verifier) {
    if (verifier.size() < 43 || verifier.size() > 128)
        return false;
    for (const auto c : verifier)
        if (!isUnreserved(c, true))
            return false;
    return true;
}

bool Pkce::isValidChallenge(const QString& challenge) {
    if (challenge.size() != 43)
        return false;
    for (const auto c : challenge)
        if (!isUnreserved(c, false))
            return false;
    return true;
}

QString Pkce::challengeFor(const QString& verifier) {
    const auto digest = QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256);
    return QString::fromLatin1(
        digest.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString Pkce::randomText(int byteCount) {
    std::vector<quint32> words((byteCount + 3) / 4);
    QRandomGenerator::system()->fillRange(words.data(), qsizetype(words.size()));
    const auto bytes =
        QByteArray(reinterpret_cast<const char*>(words.data()), qsizetype(words.size() * 4))
            .first(byteCount);
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace kestrolan::devservice
