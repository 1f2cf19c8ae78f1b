#pragma once

#include "conversation/chat_message.h"
#include "service/billing_usage.h"
#include "service/server_origin.h"
#include "support/wait_list.h"
#include "tools/local_access_grant.h"
#include "tools/tool_activity.h"
#include "tools/tool_approval.h"
#include "tools/tool_definition.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QThreadPool>
#include <QUuid>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrolan {

class APIClient;
class ApprovalAlarm;
class ApprovalClock;
class OperationCancellation;
class WebFetcher;
class Workspace;
struct SavedConversation;

// The one gate between a chat's tool calls and the computer. Holds the chat's folder grant,
// decides for each call whether it runs, needs the user's approval or is refused, runs it on
// its own serial queue, keeps the timeline, and answers every call with a tool message.
// Lives on the main thread. It also is the chat's owner of folder access: screens select and
// revoke access here.
// The owner cancels and awaits waitUntilIdle() before destroying it.
class ToolExecutor : public QObject {
    Q_OBJECT

public:
    // Activities are emptied only by beginTurn and clear, so this caps one turn.
    static constexpr qsizetype maxCallsPerTurn = 16;
    static constexpr quint32 shellTimeoutMilliseconds = 30'000;
    static constexpr bool commandsEnabled = true;
    // Never in Ask mode: descendant confinement is unproven.
    static constexpr bool askCommandsEnabled = false;

    static QString askCommandsDisabledReason();
    static QString fullAccessDisclosure();
    static QString billingDisclosure();

    // Receives the charge of a web search; may throw to refuse the result.
    using WebBillingCallback = std::function<void(std::optional<BillingUsage>)>;

    // Null arguments mean the production fetcher (public addresses only) and the system clock.
    explicit ToolExecutor(std::shared_ptr<const WebFetcher> fetcher = nullptr,
                          std::shared_ptr<ApprovalClock> clock = nullptr,
                          QObject* parent = nullptr);
    ~ToolExecutor() override;

    // Sets or drops the grant. `off` drops it (as revoke()). Any other mode needs a workspace
    // whose whole-machine flag matches the mode (set for Full access only), the accepted
    // billing disclosure and, for Full access, the confirmed risk; otherwise
    // HarnessError(accessDenied). A workspace no longer the folder it was opened as throws
    // HarnessError(staleWorkspace); an origin with no local context throws LocalPrivacyError.
    // A refused selection leaves the current grant as it was.
    void selectAccess(LocalAccessMode mode, std::shared_ptr<Workspace> workspace,
                      const ServerOrigin& origin, const QUuid& accountID, const QUuid& chatID,
                      bool billingDisclosureAccepted, bool fullAccessConfirmed);

    // Answers one call with a tool message; never throws. `offeredTools` is what the request
    // that produced the call offered; `webClient` runs web searches, whose charge goes to
    // `onWebBilling`. Calls are answered one at a time, in the order they arrive.
    QCoro::Task<ChatMessage> execute(ToolCall call, ServerOrigin origin, QUuid accountID,
                                     QUuid chatID,
                                     std::optional<QList<ToolDefinition>> offeredTools,
                                     QPointer<APIClient> webClient,
                                     WebBillingCallback onWebBilling);

    // The user's answer to the pending approval. Allowed only before it expires and while the
    // grant (for web operations: the access revision) it was asked under is still in place.
    void resolveApproval(bool allow, const QUuid& id);
    // A new user turn: empties the timeline unless a call is still running.
    void beginTurn();
    // Stops the operation under way and denies a pending approval.
    void cancel();
    // Cancels, drops the grant and closes the workspace.
    void revoke();
    // Revokes and forgets the chat's tool history; the timeline is emptied once no call runs.
    void clear();
    QCoro::Task<void> waitUntilIdle();
    // A reopened chat that read local files before keeps asking before web fetches.
    void restoreLocalReadHistory(const SavedConversation& saved);

    const std::optional<LocalAccessGrant>& grant() const { return m_grant; }
    LocalAccessMode mode() const { return m_grant ? m_grant->mode : LocalAccessMode::off; }
    const std::optional<ToolApproval>& pendingApproval() const { return m_pendingApproval; }
    const QList<ToolActivity>& activities() const { return m_activities; }
    bool isExecuting() const { return m_isExecuting; }
    bool hasExecutedLocalRead() const { return m_hasExecutedLocalRead; }

Q_SIGNALS:
    void grantChanged();
    void pendingApprovalChanged();
    void activitiesChanged();
    void isExecutingChanged(bool executing);
    void hasExecutedLocalReadChanged(bool executed);

private:
    // What one call came to.
    struct Outcome {
        QString text;
        ToolActivity::State state = ToolActivity::State::failed;
        bool ranLocalRead = false;
        bool staleWorkspace = false;
    };
    // A suspended approval request and the answer it is resumed with.
    struct ApprovalWait {
        std::coroutine_handle<> handle;
        bool answer = false;
    };
    // Holds a plain pointer: the caller keeps the wait alive, and GCC 12 can destroy an awaiter
    // temporary twice, which would drop a shared owner too many.
    struct ApprovalAwaiter {
        ApprovalWait* wait;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> handle) { wait->handle = handle; }
        bool await_resume() const noexcept { return wait->answer; }
    };
    struct NextTurn {
        ToolExecutor* executor;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> handle) {
            resumeLater(executor->m_resumer, handle);
        }
        void await_resume() const noexcept {}
    };

    QCoro::Task<Outcome> perform(ToolCall call, ServerOrigin origin, QUuid accountID, QUuid chatID,
                                 std::optional<QList<ToolDefinition>> offeredTools,
                                 QPointer<APIClient> webClient, WebBillingCallback onWebBilling,
                                 qsizetype index);
    QCoro::Task<Outcome> performWebSearch(QString query, QPointer<APIClient> webClient,
                                          WebBillingCallback onWebBilling, qsizetype index);
    QCoro::Task<bool> requestApproval(ToolCall call, ToolOperation operation, qsizetype index);
    // Local access for this chat: a grant of this account and chat whose folder is the one open.
    bool grantCovers(const ServerOrigin& origin, const QUuid& accountID, const QUuid& chatID) const;
    std::function<void()> expiry(QUuid id);
    std::shared_ptr<OperationCancellation> beginOperation(qsizetype index,
                                                          ToolActivity::State working);
    void finish(qsizetype index, const Outcome& outcome, const QElapsedTimer& elapsed,
                const QUuid& epoch, const std::optional<QUuid>& revision);
    void setState(qsizetype index, ToolActivity::State state);
    void setExecuting(bool executing);
    void setHasExecutedLocalRead(bool executed);

    std::shared_ptr<const WebFetcher> m_fetcher;
    std::shared_ptr<ApprovalClock> m_clock;

    std::optional<LocalAccessGrant> m_grant;
    std::optional<ToolApproval> m_pendingApproval;
    QList<ToolActivity> m_activities;
    bool m_isExecuting = false;
    bool m_hasExecutedLocalRead = false;
    std::shared_ptr<Workspace> m_workspace;
    std::shared_ptr<ApprovalWait> m_approvalWait;
    std::unique_ptr<ApprovalAlarm> m_timeout;
    std::shared_ptr<OperationCancellation> m_cancellation;
    // Stops the network wait of the call under way.
    std::stop_source m_callStop;
    bool m_clearWhenIdle = false;
    // Renewed by clear and revoke: work finishing under an older one leaves the new state alone.
    QUuid m_epoch = QUuid::createUuid();
    // The grant's revision, or a fresh one whenever access is dropped: what web approvals are
    // asked under.
    QUuid m_policyRevision = QUuid::createUuid();
    WaitList m_idleWaiters;
    // Deferred resumptions go through this object, so they are dropped with the executor.
    QObject m_resumer;
    // Declared last: destroyed first, waiting for the job under way.
    QThreadPool m_queue;
};

} // namespace kestrolan
