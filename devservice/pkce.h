#pragma once

#include <QByteArray>
#include <QString>

namespace kestrolan::devservice {

// Proof Key for Code Exchange with the S256 method.
class Pkce {
public:
    // 43 to 128 characters of A-Z a-z 0-9 "-" "." "_" "~".
    static bool isValidVerifier(const QString& verifier);
    // An S256 challenge is the unpadded base64url of a SHA-256: exactly 43 characters.
    static bool isValidChallenge(const QString& challenge);
    static QString challengeFor(const QString& verifier);
    // Unpadded base64url of `byteCount` bytes from the system's secure generator.
    static QString randomText(int byteCount = 32);
};

} // namespace kestrolan::devservice
