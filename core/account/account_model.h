#pragma once

#include "account/account.h"

#include <QCoroTask>
#include <QDateTime>
#include <QObject>
#include <chrono>
#include <optional>

namespace kestrolan {

class APIClient;

// The signed-in account with its balance and retention setting. Main thread. Refreshes are
// throttled to one per 30 seconds unless forced; a forced refresh during a running one is done
// once more after it; clear() makes a refresh in flight drop its answer.
class AccountModel : public QObject {
    Q_OBJECT

public:
    static constexpr std::chrono::seconds throttle{30};

    explicit AccountModel(APIClient& client, QObject* parent = nullptr);

    const std::optional<Account>& account() const { return m_account; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    bool isRefreshing() const { return m_isRefreshing; }
    // Saving chats is off without an account and while Zero Data Retention is on.
    bool canSaveChats() const { return m_account && !m_account->zeroRetention.enabled; }

    QCoro::Task<void> refresh(bool force, QDateTime now);
    void clear();

Q_SIGNALS:
    // Only when the account record itself changed.
    void accountChanged();
    // errorMessage or isRefreshing changed.
    void stateChanged();

private:
    std::optional<Account> m_account;
    std::optional<QString> m_errorMessage;
    bool m_isRefreshing = false;
    APIClient& m_client;
    std::optional<QDateTime> m_lastRefresh;
    quint64 m_generation = 0;
    bool m_refreshAgain = false;
};

} // namespace kestrolan
