#include "service/api_client.h"

#include "account/token_store.h"
#include "service/api_error.h"
#include "service/client_error.h"
#include "service/reply_reader.h"
#include "support/checked.h"

namespace kestrolan {

APIClient::APIClient(Configuration configuration, std::shared_ptr<TokenStore> tokens,
                     QObject* parent)
    : QObject(parent)
    , m_configuration(std::move(configuration))
    , m_tokens(std::move(tokens)) {}

APIClient::~APIClient() = default;

void APIClient::advanceAuthorization() {
    checkedIncrement(m_authorizationEpoch);
    // Observers may register or drop others while being told; work on a snapshot.
    std::erase_if(m_revocationObservers, [](const auto& observer) { return !observer.owner; });
    const auto observers = m_revocationObservers;
    for (const auto& observer : observers) {
        if (observer.owner)
            observer.invalidate();
    }
}

void APIClient::invalidateAuthorization() {
    advanceAuthorization();
}

void APIClient::onAuthorizationInvalidated(QObject* owner, std::function<void()> invalidate) {
    m_revocationObservers.push_back({QPointer<QObject>(owner), std::move(invalidate)});
}

QCoro::Task<std::pair<std::optional<QString>, quint64>> APIClient::readCredential() {
    const auto turn = co_await m_authorizationGate.enter();
    auto token = co_await m_tokens->read();
    co_return std::pair{std::move(token), m_authorizationEpoch};
}

QCoro::Task<bool> APIClient::restoreAuthorization() {
    if (m_tokens->origin().key() != m_configuration.origin().key())
        co_return false;
    const auto credential = co_await readCredential();
    co_return credential.first.has_value();
}

QCoro::Task<void> APIClient::installToken(QString token) {
    const auto turn = co_await m_authorizationGate.enter();
    co_await m_tokens->write(std::move(token));
    advanceAuthorization();
}

QCoro::Task<void> APIClient::logout(std::stop_token stop) {
    std::exception_ptr failure;
    try {
        // Nothing to revoke on the service without a token of this origin.
        bool signedIn = false;
        if (m_tokens->origin().key() == m_configuration.origin().key()) {
            const auto credential = co_await readCredential();
            signedIn = credential.first.has_value();
        }
        if (signedIn) {
            auto prepared = co_await request(QStringLiteral("/api/logout"), "POST", {}, true);
            co_await data(std::move(prepared), stop);
        }
    } catch (...) {
        failure = std::current_exception();
    }

    {
        const auto turn = co_await m_authorizationGate.enter();
        co_await m_tokens->remove();
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
    if (stop.stop_requested())
        throw CancellationError();
    ReplyReader reader(m_session.send(prepared.request, prepared.method, prepared.body), stop,
                       m_session.timeouts().total);
    const auto body = co_await reader.readAll(maxResponseBytes);
    const int status = reader.status().value_or(0);
    co_await observeStatus(status, prepared);
    if (status < 200 || status > 299)
        fail(status, body);
    checkEpoch(prepared);
    co_return body;
}

QCoro::Task<void> APIClient::observeStatus(int status, PreparedRequest prepared) {
    if (status != 401 || !prepared.token)
        co_return;
    const auto turn = co_await m_authorizationGate.enter();
    // Another request already handled its 401, or a newer sign-in arrived: a stale 401 never
    // signs that out.
    if (prepared.epoch != m_authorizationEpoch)
        co_return;
    bool removed = false;
    try {
        removed = co_await m_tokens->removeIfMatching(*prepared.token);
    } catch (const std::exception&) {
        removed = false; // the caller still gets the 401's own failure
    }
    if (removed && prepared.epoch == m_authorizationEpoch) {
        advanceAuthorization();
        if (m_onUnauthorized)
            m_onUnauthorized();
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
