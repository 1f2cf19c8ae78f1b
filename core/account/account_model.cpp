#include "account/account_model.h"

#include "error.h"
#include "service/api_client.h"
#include "support/checked.h"

namespace kestrolan {

AccountModel::AccountModel(APIClient& client, QObject* parent)
    : QObject(parent)
    , m_client(client) {}

QCoro::Task<void> AccountModel::refresh(bool force, QDateTime now) {
    if (m_isRefreshing) {
        if (force)
            m_refreshAgain = true;
        co_return;
    }
    if (!force && m_lastRefresh) {
        const auto since = m_lastRefresh->msecsTo(now);
        // A clock set back does not hold refreshes off.
        if (since >= 0 && since < std::chrono::milliseconds(throttle).count())
            co_return;
    }

    m_isRefreshing = true;
    Q_EMIT stateChanged();
    do {
        const auto generation = m_generation;
        m_refreshAgain = false;
        std::optional<Account> loaded;
        std::optional<QString> failure;
        try {
            loaded = co_await m_client.account();
        } catch (const Error& error) {
            failure = error.description();
        }
        if (generation != m_generation)
            continue; // cleared meanwhile: the answer belongs to the old sign-in
        if (loaded) {
            m_lastRefresh = now;
            m_errorMessage.reset();
            if (m_account != loaded) {
                m_account = std::move(loaded);
                Q_EMIT accountChanged();
            }
        } else {
            m_errorMessage = failure;
        }
        Q_EMIT stateChanged();
    } while (m_refreshAgain);
    m_isRefreshing = false;
    Q_EMIT stateChanged();
}

void AccountModel::clear() {
    checkedIncrement(m_generation);
    const bool had = m_account.has_value();
    m_account.reset();
    m_errorMessage.reset();
    m_lastRefresh.reset();
    if (had)
        Q_EMIT accountChanged();
    Q_EMIT stateChanged();
}

} // namespace kestrolan
