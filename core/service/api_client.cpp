#include "service/api_client.h"

#include "account/token_store.h"
#include "error.h"
#include "service/api_error.h"
#include "service/client_error.h"
#include "service/reply_reader.h"
#include "support/checked.h"

#include <QLoggingCategory>

namespace kestrolan {

namespace {

Q_LOGGING_CATEGORY(serviceLog, "org.kestrolan.mac.service")

// Observers and the sign-out handler belong to other objects: one that fails must not keep the
// others from running, nor replace the error the caller is about to receive.
void notify(const std::function<void()>& callback) noexcept {
    try {
        callback();
    } catch (const std::exception& error) {
        qCWarning(serviceLog, "A sign-in observer failed: %s", error.what());
    } catch (...) {
        qCWarning(serviceLog, "A sign-in observer failed");
    }
}

} // namespace

void APIClient::Lifetime::ensureAlive() const {
    if (!alive)
        throw CancellationError();
}

APIClient::APIClient(Configuration configuration, std::shared_ptr<TokenStore> tokens,
                     QObject* parent)
    : QObject(parent)
    , m_configuration(std::move(configuration))
    , m_tokens(std::move(tokens))
    , m_lifetime(std::make_shared<Lifetime>()) {}

APIClient::~APIClient() {
    // Before any member goes: replies deleted with the session wake their readers.
    m_lifetime->alive = false;
}

void APIClient::advanceAuthorization() {
    checkedIncrement(m_authorizationEpoch);
    // Observers may register or drop others while being told; work on a snapshot.
    std::erase_if(m_revocationObservers, [](const auto& observer) { return !observer.owner; });
    const auto observers = m_revocationObservers;
    for (const auto& observer : observers) {
        if (observer.owner)
            notify(observer.invalidate);
    }
}

void APIClient::invalidateAuthorization() {
    advanceAuthorization();
}

void APIClient::onAuthorizationInvalidated(QObject* owner, std::function<void()> invalidate) {
    m_revocationObservers.push_back({QPointer<QObject>(owner), std::move(invalidate)});
}

// Every coroutine below copies m_lifetime and m_tokens before it first suspends and checks the
// lifetime after each resumption, before it touches the client again.

QCoro::Task<std::pair<std::optional<QString>, quint64>> APIClient::readCredential() {
    const auto lifetime = m_lifetime;
    const auto tokens = m_tokens;
    const auto turn = co_await lifetime->gate.enter();
    lifetime->ensureAlive();
    auto token = co_await tokens->read();
    lifetime->ensureAlive();
    co_return std::pair{std::move(token), m_authorizationEpoch};
}

QCoro::Task<bool> APIClient::restoreAuthorization() {
    if (m_tokens->origin().key() != m_configuration.origin().key())
        co_return false;
    const auto credential = co_await readCredential();
    co_return credential.first.has_value();
}

QCoro::Task<void> APIClient::installToken(QString token) {
    const auto lifetime = m_lifetime;
    const auto tokens = m_tokens;
    std::optional<QString> previous;
    std::exception_ptr unkept;
    {
        const auto turn = co_await lifetime->gate.enter();
        lifetime->ensureAlive();
        // Only a token of this origin may ever be sent here.
        if (tokens->origin().key() == m_configuration.origin().key()) {
            try {
                previous = co_await tokens->read();
            } catch (const std::exception& error) {
                qCWarning(serviceLog, "The replaced token could not be read: %s", error.what());
            }
            lifetime->ensureAlive();
        }
        try {
            co_await tokens->write(token);
        } catch (...) {
            unkept = std::current_exception();
        }
        lifetime->ensureAlive();
        if (!unkept)
            advanceAuthorization();
    }
    if (unkept) {
        // Nobody could use or revoke it later, yet it would stay valid on the service.
        co_await revoke(token);
        std::rethrow_exception(unkept);
    }
    if (previous && *previous != token)
        co_await revoke(*previous);
}

QCoro::Task<PreparedRequest> APIClient::logoutRequest(QString token) {
    auto prepared = co_await request(QStringLiteral("/api/logout"), "POST", {}, false);
    prepared.request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    co_return prepared;
}

QCoro::Task<void> APIClient::revoke(QString token) {
    try {
        // The answer is not used: whether a newer sign-in arrived meanwhile does not matter.
        auto prepared = co_await logoutRequest(token);
        co_await perform(std::move(prepared), {});
    } catch (const std::exception& error) {
        qCWarning(serviceLog, "A token could not be revoked: %s", error.what());
    }
}

QCoro::Task<void> APIClient::logout(std::stop_token stop) {
    const auto lifetime = m_lifetime;
    const auto tokens = m_tokens;
    // The token this call logs out and the epoch it was read at: only that token is removed,
    // and the epoch advances only if nothing else (a 401, a new sign-in) has moved it since.
    std::optional<QString> token;
    quint64 epoch = m_authorizationEpoch;
    bool readFailed = false;
    std::exception_ptr failure;
    try {
        // Nothing to revoke on the service without a token of this origin.
        if (tokens->origin().key() == m_configuration.origin().key()) {
            try {
                const auto credential = co_await readCredential();
                token = credential.first;
                epoch = credential.second;
            } catch (const CancellationError&) {
                throw;
            } catch (...) {
                readFailed = true;
                throw;
            }
        }
        if (token) {
            auto prepared = co_await logoutRequest(*token);
            prepared.token = token;
            prepared.epoch = epoch;
            // A 401 here is handled as on any request; a sign-in installed meanwhile does not
            // make the answer stale, since the answer is not used.
            co_await perform(std::move(prepared), stop);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    lifetime->ensureAlive();

    {
        const auto turn = co_await lifetime->gate.enter();
        lifetime->ensureAlive();
        if (token)
            co_await tokens->removeIfMatching(*token);
        else if (readFailed)
            co_await tokens->remove(); // whatever is stored, it must not outlive the sign-out
        lifetime->ensureAlive();
        if (epoch == m_authorizationEpoch)
            advanceAuthorization();
    }
    if (failure)
        std::rethrow_exception(failure);
}

QCoro::Task<PreparedRequest> APIClient::request(QString path, QByteArray method,
                                                std::optional<QByteArray> body,
                                                bool authenticated) {
    PreparedRequest prepared;
    prepared.request = m_session.makeRequest(m_configuration.url(path));
    prepared.request.setRawHeader("Accept", "application/json");
    if (body)
        prepared.request.setRawHeader("Content-Type", "application/json");
    prepared.method = std::move(method);
    prepared.body = std::move(body);
    prepared.epoch = m_authorizationEpoch;

    if (authenticated) {
        if (m_tokens->origin().key() != m_configuration.origin().key())
            throw ClientError(ClientError::Kind::noAuthorization);
        const auto credential = co_await readCredential();
        if (!credential.first)
            throw ClientError(ClientError::Kind::noAuthorization);
        prepared.request.setRawHeader("Authorization", "Bearer " + credential.first->toUtf8());
        prepared.epoch = credential.second;
        prepared.token = credential.first;
    }
    co_return prepared;
}

QCoro::Task<QByteArray> APIClient::data(PreparedRequest prepared, std::stop_token stop) {
    const auto lifetime = m_lifetime;
    auto body = co_await perform(prepared, std::move(stop));
    lifetime->ensureAlive();
    checkEpoch(prepared);
    co_return body;
}

QCoro::Task<QByteArray> APIClient::perform(PreparedRequest prepared, std::stop_token stop) {
    if (stop.stop_requested())
        throw CancellationError();
    const auto lifetime = m_lifetime;
    ReplyReader reader(m_session.send(prepared.request, prepared.method, prepared.body), stop,
                       m_session.timeouts().total);
    auto body = co_await reader.readAll(maxResponseBytes);
    lifetime->ensureAlive();
    const int status = reader.status().value_or(0);
    co_await observeStatus(status, prepared);
    if (status < 200 || status > 299)
        fail(status, body);
    co_return body;
}

QCoro::Task<void> APIClient::observeStatus(int status, PreparedRequest prepared) {
    if (status != 401 || !prepared.token)
        co_return;
    const auto lifetime = m_lifetime;
    const auto tokens = m_tokens;
    const auto turn = co_await lifetime->gate.enter();
    lifetime->ensureAlive();
    // Another request already handled its 401, or a newer sign-in arrived: a stale 401 never
    // signs that out.
    if (prepared.epoch != m_authorizationEpoch)
        co_return;
    bool removed = false;
    try {
        removed = co_await tokens->removeIfMatching(*prepared.token);
    } catch (const std::exception&) {
        removed = false; // the caller still gets the 401's own failure
    }
    lifetime->ensureAlive();
    if (removed && prepared.epoch == m_authorizationEpoch) {
        advanceAuthorization();
        if (lifetime->alive && m_onUnauthorized)
            notify(m_onUnauthorized);
    }
}

void APIClient::fail(int status, const QByteArray& body) {
    if (auto error = APIError::fromEnvelope(body))
        throw *error;
    throw ClientError::http(status);
}

void APIClient::checkEpoch(const PreparedRequest& prepared) const {
    // The credential was revoked or replaced while this request was in flight: its answer
    // belongs to the old sign-in.
    if (prepared.token && prepared.epoch != m_authorizationEpoch)
        throw ClientError(ClientError::Kind::noAuthorization);
}

} // namespace kestrolan
