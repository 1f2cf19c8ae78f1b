#include "account/desktop_auth.h"

#include "account/token_store.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "support/checked.h"

namespace kestrolan {

namespace {

QString describe(const std::exception& error) {
    if (const auto* known = dynamic_cast<const Error*>(&error))
        return known->description();
    return QString::fromLocal8Bit(error.what());
}

} // namespace

DesktopAuth::DesktopAuth(APIClient& client, std::shared_ptr<TokenStore> tokens, QObject* parent)
    : QObject(parent)
    , m_client(client)
    , m_tokens(std::move(tokens)) {
    m_client.onAuthorizationInvalidated(this, [this] { invalidate(); });
}

QCoro::Task<void> DesktopAuth::restore() {
    try {
        const bool present = co_await m_client.restoreAuthorization();
        m_isSignedIn = present;
    } catch (const std::exception& error) {
        m_errorMessage = describe(error);
    }
    Q_EMIT changed();
}

QUrl DesktopAuth::beginSignIn() {
    checkedIncrement(m_generation);
    m_pending.emplace();
    m_errorMessage.reset();
    m_isSigningIn = true;
    Q_EMIT changed();
    return m_pending->authorizeURL(m_client.configuration().baseURL());
}

QCoro::Task<void> DesktopAuth::handleCallback(QUrl url, QString deviceName) {
    if (!m_pending) {
        m_errorMessage = ClientError(ClientError::Kind::invalidCallback).description();
        Q_EMIT changed();
        co_return;
    }
    const auto generation = m_generation;
    std::exception_ptr failure;
    std::optional<APIClient::DesktopToken::Identity> identity;
    try {
        const PKCE attempt = *m_pending;
        const QString code = attempt.code(url);
        m_pending.reset(); // a code is used once
        const auto exchanged =
            co_await m_client.exchangeCode(code, attempt.verifier, std::move(deviceName));
        if (generation != m_generation) {
            // Cancelled, superseded or revoked meanwhile: the token is dropped, and revoked so
            // that it does not stay valid unused.
            co_await m_client.revoke(exchanged.token);
            co_return;
        }
        co_await m_client.installToken(exchanged.token);
        identity = exchanged.account;
    } catch (...) {
        failure = std::current_exception();
    }

    if (failure) {
        if (generation != m_generation)
            co_return;
        try {
            std::rethrow_exception(failure);
        } catch (const ClientError& error) {
            if (error.kind() == ClientError::Kind::accessDenied)
                m_pending.reset();
            m_errorMessage = error.description();
        } catch (const std::exception& error) {
            m_errorMessage = describe(error);
        }
        // Any other failure keeps a still pending attempt, so that a correct callback of the
        // same attempt can complete it.
        m_isSigningIn = false;
        Q_EMIT changed();
        co_return;
    }

    checkedIncrement(m_credentialRevision);
    m_signedInAccount = std::move(identity);
    m_isSignedIn = true;
    m_errorMessage.reset();
    m_isSigningIn = false;
    Q_EMIT changed();
}

void DesktopAuth::cancelSignIn() {
    checkedIncrement(m_generation);
    m_pending.reset();
    m_isSigningIn = false;
    m_errorMessage.reset();
    Q_EMIT changed();
}

QCoro::Task<void> DesktopAuth::signOut() {
    m_isSigningOut = true;
    Q_EMIT changed();
    std::optional<QString> failure;
    try {
        co_await m_client.logout();
    } catch (const std::exception& error) {
        failure = describe(error);
    }
    m_client.advanceAuthorization();
    invalidate();
    m_isSigningOut = false;
    if (failure)
        m_errorMessage = failure;
    Q_EMIT changed();
}

void DesktopAuth::invalidate() {
    checkedIncrement(m_generation);
    m_isSignedIn = false;
    m_isSigningIn = false;
    m_pending.reset();
    m_signedInAccount.reset();
    Q_EMIT changed();
}

} // namespace kestrolan
