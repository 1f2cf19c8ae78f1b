#pragma once

#include <QString>
#include <QUrl>
#include <functional>

namespace kestrolan {

// The secrets of one browser sign-in attempt: the code verifier (RFC 7636, method S256) and the
// state that ties the callback to the attempt.
struct PKCE {
    // Fills `size` bytes; returns 0 on success or the generator's failure status.
    using RandomSource = std::function<qint32(unsigned char* bytes, int size)>;

    QString verifier;
    QString state;

    // Draws the verifier, then the state. A generator failure throws ClientError::keychain.
    PKCE();
    explicit PKCE(const RandomSource& random);

    QString challenge() const { return challenge(verifier); }
    // base64url (no padding) of SHA-256 over the UTF-8 bytes of `verifier`.
    static QString challenge(const QString& verifier);

    // base + "desktop/authorize" with exactly state, code_challenge, code_challenge_method.
    QUrl authorizeURL(const QUrl& base) const;

    // Checks a callback URL against this attempt and returns its authorization code.
    QString code(const QUrl& callback) const;

    // The operating system's secure random generator.
    static qint32 systemRandom(unsigned char* bytes, int size);
};

} // namespace kestrolan
