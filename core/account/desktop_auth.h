#pragma once

#include "account/pkce.h"
#include "service/api_client.h"

#include <QCoroTask>
#include <QObject>
#include <QUrl>
#include <memory>
#include <optional>

namespace kestrolan {

class TokenStore;

// Browser sign-in and sign-out as the screens see it. Main thread. Every sign-in attempt, cancel
// and revocation starts a new generation; an exchange that completes under an older one is
// discarded, so a late answer never signs in an attempt the user has abandoned.
class DesktopAuth : public QObject {
    Q_OBJECT

public:
    DesktopAuth(APIClient& client, std::shared_ptr<TokenStore> tokens, QObject* parent = nullptr);

    qint64 credentialRevision() const { return m_credentialRevision; }
    bool isSignedIn() const { return m_isSignedIn; }
    bool isSigningIn() const { return m_isSigningIn; }
    bool isSigningOut() const { return m_isSigningOut; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    // Who the last completed sign-in belongs to, as the service named it in the exchange.
    const std::optional<APIClient::DesktopToken::Identity>& signedInAccount() const {
        return m_signedInAccount;
    }
    TokenStore& tokens() const { return *m_tokens; }

    // Signed in when a token of this origin is stored.
    QCoro::Task<void> restore();
    // Starts an attempt and returns the authorize URL to open in the browser.
    QUrl beginSignIn();
    // Completes the pending attempt with the URL the browser was sent back to.
    QCoro::Task<void> handleCallback(QUrl url, QString deviceName);
    void cancelSignIn();
    // Ends signed out even when the service cannot be reached; the error is then shown.
    QCoro::Task<void> signOut();

Q_SIGNALS:
    void changed();

private:
    void invalidate();

    qint64 m_credentialRevision = 0;
    bool m_isSignedIn = false;
    bool m_isSigningIn = false;
    bool m_isSigningOut = false;
    std::optional<QString> m_errorMessage;
    APIClient& m_client;
    std::shared_ptr<TokenStore> m_tokens;
    std::optional<PKCE> m_pending;
    qint64 m_generation = 0;
    std::optional<APIClient::DesktopToken::Identity> m_signedInAccount;
};

} // namespace kestrolan
