#pragma once

#include "account/account.h"
#include "account/catalog.h"
#include "service/chat_stream_event.h"
#include "service/configuration.h"
#include "service/network_session.h"
#include "service/prepared_request.h"
#include "support/async_gate.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QUuid>
#include <functional>
#include <memory>
#include <stop_token>

namespace kestrolan {

struct ChatRequest;
struct SavedChatSummary;
struct SavedConversation;
struct WebSearchResponse;
class TokenStore;

// The one client of the hosted service. Lives on the main thread; every operation suspends
// while the network works. One 401 becomes one sign-out however many requests receive it.
class APIClient : public QObject {
    Q_OBJECT

public:
    static constexpr qsizetype maxResponseBytes = 2'097'152;
    static constexpr qsizetype maxErrorBodyBytes = 1'048'576;

    // What the sign-in code exchange returns.
    struct DesktopToken {
        struct Identity {
            std::optional<QUuid> id;
            QString email;
        };
        QString token;
        QString expiresAt; // kept as received
        Identity account;
    };

    APIClient(Configuration configuration, std::shared_ptr<TokenStore> tokens,
              QObject* parent = nullptr);
    ~APIClient() override;

    const Configuration& configuration() const { return m_configuration; }
    TokenStore& tokens() const { return *m_tokens; }
    NetworkSession& session() { return m_session; }

    // Runs on the main thread when a 401 has revoked the token.
    void setOnUnauthorized(std::function<void()> callback) {
        m_onUnauthorized = std::move(callback);
    }

    // --- authorization ---
    quint64 authorizationEpoch() const { return m_authorizationEpoch; }
    QCoro::Task<bool> restoreAuthorization();
    // Stores a newly obtained token and starts using it. The token it replaces is then revoked
    // on the service; a token that cannot be stored is revoked at once and the store's error
    // rethrown, so that no token stays valid with nobody holding it. Revocations are best
    // effort: their failures are logged, never thrown.
    QCoro::Task<void> installToken(QString token);
    // Revokes the token on the service, then removes that token locally whatever the service
    // answered; a failure of the call is rethrown after the local sign-out. A sign-in completed
    // meanwhile is left in place.
    QCoro::Task<void> logout(std::stop_token stop = {});
    // Best effort: asks the service to revoke a token this client does not keep (one it could
    // not store, replaced or dropped), sent as the bearer token without the token store.
    QCoro::Task<void> revoke(QString token);
    void invalidateAuthorization();
    void advanceAuthorization();
    // `invalidate` runs whenever the credential is revoked or replaced, while `owner` lives.
    void onAuthorizationInvalidated(QObject* owner, std::function<void()> invalidate);

    // --- requests ---
    QCoro::Task<PreparedRequest> request(QString path, QByteArray method,
                                         std::optional<QByteArray> body, bool authenticated);
    // Sends and returns the body of a 2xx answer; every other outcome throws.
    QCoro::Task<QByteArray> data(PreparedRequest prepared, std::stop_token stop = {});

    // Posts a chat request and hands each decoded event to `onEvent` as it arrives. Events
    // already delivered stay delivered when the stream later fails.
    QCoro::Task<void> stream(ChatRequest chatRequest, std::function<void(ChatStreamEvent)> onEvent,
                             std::stop_token stop = {});

    // --- saved chats ---
    static constexpr qsizetype maxSavedChatBytes = 1'048'576;
    QCoro::Task<QList<SavedChatSummary>> chats(std::stop_token stop = {});
    // The stored chat, validated.
    QCoro::Task<SavedConversation> chat(QUuid id, std::stop_token stop = {});
    // `savingAllowed` is false while the account keeps zero data retention: nothing is sent.
    // The document is checked for size and validity before any request.
    QCoro::Task<SavedChatSummary> saveChat(QUuid id, SavedConversation conversation,
                                           bool savingAllowed, std::stop_token stop = {});
    QCoro::Task<void> deleteChat(QUuid id, std::stop_token stop = {});

    // --- sign-in, account and catalog (api_client_account.cpp) ---
    // Trades a browser sign-in's one-time code for a bearer token; sent without a token.
    QCoro::Task<DesktopToken> exchangeCode(QString code, QString verifier, QString deviceName,
                                           std::stop_token stop = {});
    QCoro::Task<Account> account(std::stop_token stop = {});
    // The catalog is public: fetched without a token.
    QCoro::Task<Catalog> catalog(std::stop_token stop = {});

    // --- web search (api_client_web.cpp) ---
    // Billed to the account: the answer carries the charge.
    QCoro::Task<WebSearchResponse> webSearch(QString query, std::stop_token stop = {});

private:
    // What a suspended operation holds on to: the gate it queues at outlives the client, and on
    // resuming it learns whether the client still exists (CancellationError if not).
    struct Lifetime {
        AsyncGate gate;
        bool alive = true;
        void ensureAlive() const;
    };

    QCoro::Task<std::pair<std::optional<QString>, quint64>> readCredential();
    // "/api/logout" with `token` as the bearer, whatever the token store holds.
    QCoro::Task<PreparedRequest> logoutRequest(QString token);
    // data() without the check that the sign-in is still the one the request was made under.
    QCoro::Task<QByteArray> perform(PreparedRequest prepared, std::stop_token stop);
    QCoro::Task<void> observeStatus(int status, PreparedRequest prepared);
    [[noreturn]] static void fail(int status, const QByteArray& body);
    void checkEpoch(const PreparedRequest& prepared) const;

    struct RevocationObserver {
        QPointer<QObject> owner;
        std::function<void()> invalidate;
    };

    Configuration m_configuration;
    std::function<void()> m_onUnauthorized;
    std::shared_ptr<TokenStore> m_tokens;
    NetworkSession m_session;
    std::vector<RevocationObserver> m_revocationObservers;
    quint64 m_authorizationEpoch = 0;
    // Its gate serialises credential work: a token is never read half-way through its
    // replacement.
    std::shared_ptr<Lifetime> m_lifetime;
};

} // namespace kestrolan
