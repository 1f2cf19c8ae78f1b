#include "tools/tool_executor.h"

#include "conversation/saved_conversation.h"
#include "error.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "storage/local_account_context.h"
#include "storage/local_privacy_error.h"
#include "tools/approval_clock.h"
#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "tools/shell_command.h"
#include "tools/tool_result.h"
#include "web/web_fetcher.h"
#include "web/web_search_response.h"
#include "workspace/workspace.h"

#include <QCoroFuture>
#include <QtConcurrent>
#include <algorithm>
#include <utility>

namespace kestrolan {

namespace {

using State = ToolActivity::State;
using Kind = HarnessError::Kind;

struct WorkResult {
    QString text;
    State state = State::failed;
    bool staleWorkspace = false;
};

// How a thrown error ends the call: an interrupted edit stays uncertain even when cancelled;
// anything else that was cancelled was stopped by the user.
WorkResult refusal(const std::exception& error, bool cancelled = false) {
    const auto* harness = dynamic_cast<const HarnessError*>(&error);
    if (harness && harness->kind() == Kind::interruptedMutation)
        return {ToolResult::failure(error), State::uncertain};
    if (cancelled || dynamic_cast<const CancellationError*>(&error))
        return {ToolResult::failure(CancellationError()), State::stopped};
    if (harness && harness->kind() == Kind::accessDenied)
        return {ToolResult::failure(error), State::denied};
    return {ToolResult::failure(error), State::failed,
            harness && harness->kind() == Kind::staleWorkspace};
}

WorkResult refusal(Kind kind) {
    return refusal(HarnessError(kind));
}

// Blocking: runs on the executor's queue.
WorkResult runLocal(std::shared_ptr<Workspace> workspace, ToolOperation operation,
                    std::shared_ptr<OperationCancellation> cancellation) {
    try {
        workspace->validate();
        if (const auto* shell = std::get_if<ToolOperation::RunShell>(&operation.payload())) {
            if (!shell->cwd.startsWith(u'/') || shell->cwd.contains(QChar(u'\0')))
                throw HarnessError(Kind::unsafePath);
            auto command = std::make_shared<ShellCommand>();
            if (!command->hasHandle())
                throw HarnessError(Kind::limit);
            cancellation->attach(command);
            const ShellOutcome outcome =
                command->runOutcome(shell->command, QUrl::fromLocalFile(shell->cwd),
                                    ToolExecutor::shellTimeoutMilliseconds);
            return {outcome.text, cancellation->isCancelled() ? State::stopped : State::completed};
        }
        return {workspace->execute(operation, *cancellation), State::completed};
    } catch (const std::exception& error) {
        return refusal(error, cancellation->isCancelled());
    }
}

WorkResult runFetch(std::shared_ptr<const WebFetcher> fetcher, QString url,
                    std::shared_ptr<OperationCancellation> cancellation) {
    try {
        return {fetcher->fetch(url, *cancellation), State::completed};
    } catch (const std::exception& error) {
        return refusal(error, cancellation->isCancelled());
    }
}

State workingState(const ToolOperation& operation) {
    return std::visit(
        [](const auto& payload) {
            using Payload = std::decay_t<decltype(payload)>;
            if constexpr (std::is_same_v<Payload, ToolOperation::Search> ||
                          std::is_same_v<Payload, ToolOperation::WebSearch>)
                return State::searching;
            else if constexpr (std::is_same_v<Payload, ToolOperation::EditFile>)
                return State::editing;
            else if constexpr (std::is_same_v<Payload, ToolOperation::RunShell>)
                return State::running;
            else
                return State::reading;
        },
        operation.payload());
}

bool wasOffered(const QString& name, const std::optional<QList<ToolDefinition>>& offeredTools) {
    if (!offeredTools)
        return false;
    return std::any_of(offeredTools->begin(), offeredTools->end(),
                       [&](const ToolDefinition& tool) { return tool.function.name == name; });
}

ChatMessage toolMessage(const ToolCall& call, QString text) {
    ChatMessage message;
    message.role = ChatMessage::Role::tool;
    message.content = std::move(text);
    message.toolCallID = call.id;
    return message;
}

} // namespace

QString ToolExecutor::askCommandsDisabledReason() {
    return QStringLiteral("Ask-mode commands are disabled because descendant confinement is "
                          "unproven.");
}

QString ToolExecutor::fullAccessDisclosure() {
    return QStringLiteral(
        "Commands run unconfined with your user privileges: they can read, change or delete "
        "files anywhere on your computer and use the network. Malicious instructions in files or "
        "model output can cause data loss or disclosure. There is no sudo or privilege helper. "
        "Programs that deliberately detach can escape process-group cleanup. Allow Full access "
        "for this chat/session only?");
}

QString ToolExecutor::billingDisclosure() {
    return QStringLiteral(
        "Tools can use up to eight separately billed inference requests per turn. Repeated "
        "history and tool results count as input. Local execution has no inference fee. Stop "
        "may leave usage pending.");
}

ToolExecutor::ToolExecutor(std::shared_ptr<const WebFetcher> fetcher,
                           std::shared_ptr<ApprovalClock> clock, QObject* parent)
    : QObject(parent)
    , m_fetcher(fetcher ? std::move(fetcher) : std::make_shared<const WebFetcher>())
    , m_clock(clock ? std::move(clock) : std::make_shared<ApprovalClock>()) {
    m_queue.setMaxThreadCount(1);
    m_queue.setObjectName(QStringLiteral("org.kestrolan.mac.tools"));
}

ToolExecutor::~ToolExecutor() {
    // The queue's destructor waits for the job under way; make that short.
    if (m_cancellation)
        m_cancellation->cancel();
}

void ToolExecutor::selectAccess(LocalAccessMode mode, std::shared_ptr<Workspace> workspace,
                                const ServerOrigin& origin, const QUuid& accountID,
                                const QUuid& chatID, bool billingDisclosureAccepted,
                                bool fullAccessConfirmed) {
    if (mode == LocalAccessMode::off) {
        revoke();
        return;
    }
    const bool full = mode == LocalAccessMode::fullAccess;
    if (!workspace || !billingDisclosureAccepted || (full && !fullAccessConfirmed) ||
        workspace->isWholeMachine() != full)
        throw HarnessError(Kind::accessDenied);
    workspace->validate();
    LocalAccessGrant grant{LocalAccountContext::make(origin, accountID), chatID,
                           workspace->identity(), QUuid::createUuid(), mode};
    m_policyRevision = grant.policyRevision;
    m_grant = std::move(grant);
    m_workspace = std::move(workspace);
    Q_EMIT grantChanged();
}

QCoro::Task<ChatMessage> ToolExecutor::execute(ToolCall call, ServerOrigin origin, QUuid accountID,
                                               QUuid chatID,
                                               std::optional<QList<ToolDefinition>> offeredTools,
                                               QPointer<APIClient> webClient,
                                               WebBillingCallback onWebBilling) {
    const QPointer<ToolExecutor> alive(this);
    while (m_isExecuting)
        co_await m_idleWaiters.next();

    if (m_activities.size() >= maxCallsPerTurn)
        co_return toolMessage(call, ToolResult::failure(HarnessError(Kind::limit)));

    QElapsedTimer elapsed;
    elapsed.start();
    m_activities.append(
        ToolActivity{call.id, call, State::preparing, std::nullopt, m_clock->now(), std::nullopt});
    const qsizetype index = m_activities.size() - 1;
    Q_EMIT activitiesChanged();
    setExecuting(true);
    m_callStop = std::stop_source();
    const QUuid epoch = m_epoch;
    const std::optional<QUuid> revision =
        m_grant ? std::optional(m_grant->policyRevision) : std::nullopt;

    const Outcome outcome =
        co_await perform(call, std::move(origin), accountID, chatID, std::move(offeredTools),
                         std::move(webClient), std::move(onWebBilling), index);
    if (alive) {
        // The call ends from the event loop, never inside the caller's own execute(): what the
        // caller does right after starting a call (cancel, clear) always meets it running.
        co_await NextTurn{this};
        finish(index, outcome, elapsed, epoch, revision);
    }
    co_return toolMessage(call, outcome.text);
}

QCoro::Task<ToolExecutor::Outcome>
ToolExecutor::perform(ToolCall call, ServerOrigin origin, QUuid accountID, QUuid chatID,
                      std::optional<QList<ToolDefinition>> offeredTools,
                      QPointer<APIClient> webClient, WebBillingCallback onWebBilling,
                      qsizetype index) {
    const auto refused = [](const WorkResult& result) {
        return Outcome{result.text, result.state, false, result.staleWorkspace};
    };

    std::optional<ToolOperation> decoded;
    try {
        decoded.emplace(call);
    } catch (const std::exception& error) {
        co_return refused(refusal(error));
    }
    const ToolOperation operation = *decoded;

    if (!wasOffered(operation.name(), offeredTools)) {
        const QString invalid = HarnessError::describe(Kind::invalidArguments);
        co_return refused(refusal(
            Error(invalid.chopped(1) + u". Use only tools explicitly offered in this request.")));
    }

    const QPointer<ToolExecutor> alive(this);
    if (const auto* search = std::get_if<ToolOperation::WebSearch>(&operation.payload())) {
        Outcome outcome = co_await performWebSearch(search->query, std::move(webClient),
                                                    std::move(onWebBilling), index);
        co_return outcome;
    }

    if (const auto* fetch = std::get_if<ToolOperation::WebFetch>(&operation.payload())) {
        const QString url = fetch->url;
        // A page address can carry what local tools read out of the computer.
        if (m_hasExecutedLocalRead) {
            const bool allowed = co_await requestApproval(call, operation, index);
            if (!alive)
                co_return Outcome{ToolResult::failure(CancellationError()), State::stopped};
            if (!allowed)
                co_return refused(refusal(Kind::accessDenied));
        }
        const auto cancellation = beginOperation(index, State::reading);
        const WorkResult result =
            co_await QtConcurrent::run(&m_queue, &runFetch, m_fetcher, url, cancellation);
        co_return refused(result);
    }

    if (!grantCovers(origin, accountID, chatID))
        co_return refused(refusal(Kind::accessDenied));
    const LocalAccessMode mode = m_grant->mode;
    if (operation.isMutation() && mode == LocalAccessMode::readOnlyWorkspace)
        co_return refused(refusal(Kind::accessDenied));
    if (std::holds_alternative<ToolOperation::RunShell>(operation.payload())) {
        const bool shellAllowed = mode == LocalAccessMode::fullAccess ||
                                  (mode == LocalAccessMode::askEveryTime && askCommandsEnabled);
        if (!commandsEnabled || !shellAllowed)
            co_return refused(refusal(Kind::shellDisabled));
    }

    if (mode == LocalAccessMode::askEveryTime || operation.isMutation()) {
        const QUuid revision = m_grant->policyRevision;
        const QUuid epoch = m_epoch;
        const bool allowed = co_await requestApproval(call, operation, index);
        if (!alive)
            co_return Outcome{ToolResult::failure(CancellationError()), State::stopped};
        // Access may have changed between the answer and this resumption.
        const bool stillGranted =
            m_epoch == epoch && m_grant && m_grant->policyRevision == revision && m_workspace;
        if (!allowed || !stillGranted)
            co_return refused(refusal(Kind::accessDenied));
    }

    const auto cancellation = beginOperation(index, workingState(operation));
    const WorkResult result =
        co_await QtConcurrent::run(&m_queue, &runLocal, m_workspace, operation, cancellation);
    co_return Outcome{result.text, result.state, operation.isLocalRead(), result.staleWorkspace};
}

QCoro::Task<ToolExecutor::Outcome> ToolExecutor::performWebSearch(QString query,
                                                                  QPointer<APIClient> webClient,
                                                                  WebBillingCallback onWebBilling,
                                                                  qsizetype index) {
    if (!webClient) {
        const WorkResult result = refusal(ClientError(ClientError::Kind::noAuthorization));
        co_return Outcome{result.text, result.state};
    }
    setState(index, State::searching);
    const std::stop_token stop = m_callStop.get_token();
    try {
        const WebSearchResponse response = co_await webClient->webSearch(query, stop);
        // The search was billed whatever happens to the executor meanwhile.
        if (onWebBilling)
            onWebBilling(response.billing);
        co_return Outcome{response.toolResultText(), State::completed};
    } catch (const std::exception& error) {
        const WorkResult result = refusal(error, stop.stop_requested());
        co_return Outcome{result.text, result.state};
    }
}

QCoro::Task<bool> ToolExecutor::requestApproval(ToolCall call, ToolOperation operation,
                                                qsizetype index) {
    if (m_callStop.stop_requested())
        co_return false;
    const bool web = operation.isWeb();
    ToolApproval approval{
        QUuid::createUuid(),
        std::move(call),
        std::move(operation),
        web ? std::nullopt : std::optional(m_grant->rootIdentity),
        web ? m_policyRevision : m_grant->policyRevision,
        m_clock->now().addSecs(ToolApproval::lifetime.count()),
    };
    const QUuid id = approval.id;
    const QDateTime expiresAt = approval.expiresAt;
    auto wait = std::make_shared<ApprovalWait>();
    m_approvalWait = wait;
    m_pendingApproval = std::move(approval);
    setState(index, State::awaitingApproval);
    m_timeout = m_clock->alarm(expiresAt, expiry(id));
    Q_EMIT pendingApprovalChanged();
    ApprovalAwaiter awaiter{wait.get()};
    const bool allowed = co_await awaiter;
    co_return allowed;
}

std::function<void()> ToolExecutor::expiry(QUuid id) {
    return [this, id] { resolveApproval(false, id); };
}

void ToolExecutor::resolveApproval(bool allow, const QUuid& id) {
    if (!m_pendingApproval || m_pendingApproval->id != id)
        return;
    const ToolApproval approval = *m_pendingApproval;
    bool granted = allow && m_clock->now() < approval.expiresAt;
    if (granted && approval.rootIdentity) {
        granted = m_grant && m_grant->rootIdentity == *approval.rootIdentity &&
                  m_grant->policyRevision == approval.policyRevision;
    } else if (granted) {
        granted = m_policyRevision == approval.policyRevision;
    }
    m_pendingApproval.reset();
    m_timeout.reset();
    if (auto wait = std::exchange(m_approvalWait, nullptr)) {
        wait->answer = granted;
        resumeLater(m_resumer, wait->handle);
    }
    Q_EMIT pendingApprovalChanged();
}

bool ToolExecutor::grantCovers(const ServerOrigin& origin, const QUuid& accountID,
                               const QUuid& chatID) const {
    if (!m_grant || m_grant->mode == LocalAccessMode::off || !m_workspace ||
        m_grant->rootIdentity != m_workspace->identity() || m_grant->chatID != chatID)
        return false;
    try {
        return m_grant->context == LocalAccountContext::make(origin, accountID);
    } catch (const LocalPrivacyError&) {
        return false;
    }
}

std::shared_ptr<OperationCancellation> ToolExecutor::beginOperation(qsizetype index,
                                                                    State working) {
    auto cancellation = std::make_shared<OperationCancellation>();
    // A cancel that came while the call was being decided reaches the operation too.
    if (m_callStop.stop_requested())
        cancellation->cancel();
    m_cancellation = cancellation;
    setState(index, working);
    return cancellation;
}

void ToolExecutor::finish(qsizetype index, const Outcome& outcome, const QElapsedTimer& elapsed,
                          const QUuid& epoch, const std::optional<QUuid>& revision) {
    m_cancellation.reset();
    // The timeline is emptied only while no call runs, so the call's line is still there.
    Q_ASSERT(index < m_activities.size());
    ToolActivity& activity = m_activities[index];
    activity.state = outcome.state;
    activity.result = outcome.text;
    activity.elapsed = double(elapsed.nsecsElapsed()) / 1e9;
    Q_EMIT activitiesChanged();
    // A read that ran put local text into the chat, also when access was revoked meanwhile;
    // only clearing the chat forgets it.
    if (outcome.ranLocalRead && !m_clearWhenIdle)
        setHasExecutedLocalRead(true);
    // The folder the grant named is gone: access ends until the user selects it again. A grant
    // made since is left alone.
    if (outcome.staleWorkspace && epoch == m_epoch && m_grant &&
        m_grant->policyRevision == revision)
        revoke();
    setExecuting(false);
    m_idleWaiters.resumeAll();
    if (m_clearWhenIdle) {
        m_clearWhenIdle = false;
        m_activities.clear();
        Q_EMIT activitiesChanged();
    }
}

void ToolExecutor::beginTurn() {
    if (m_isExecuting || m_activities.isEmpty())
        return;
    m_activities.clear();
    Q_EMIT activitiesChanged();
}

void ToolExecutor::cancel() {
    m_callStop.request_stop();
    if (m_cancellation)
        m_cancellation->cancel();
    if (m_pendingApproval)
        resolveApproval(false, m_pendingApproval->id);
}

void ToolExecutor::revoke() {
    cancel();
    const bool hadAccess = m_grant || m_workspace;
    m_grant.reset();
    m_workspace.reset();
    m_epoch = QUuid::createUuid();
    m_policyRevision = QUuid::createUuid();
    if (hadAccess)
        Q_EMIT grantChanged();
}

void ToolExecutor::clear() {
    revoke();
    setHasExecutedLocalRead(false);
    if (m_isExecuting) {
        m_clearWhenIdle = true;
        return;
    }
    if (!m_activities.isEmpty()) {
        m_activities.clear();
        Q_EMIT activitiesChanged();
    }
}

QCoro::Task<void> ToolExecutor::waitUntilIdle() {
    while (m_isExecuting)
        co_await m_idleWaiters.next();
}

void ToolExecutor::restoreLocalReadHistory(const SavedConversation& saved) {
    for (const auto& turn : saved.turns) {
        for (const auto& reply : turn.replies) {
            for (const auto& message : reply.exchanges.value_or(QList<ChatMessage>())) {
                for (const auto& call : message.toolCalls.value_or(QList<ToolCall>())) {
                    try {
                        if (ToolOperation(call).isLocalRead()) {
                            setHasExecutedLocalRead(true);
                            return;
                        }
                    } catch (const std::exception&) {
                        // A call that does not decode read nothing.
                    }
                }
            }
        }
    }
}

void ToolExecutor::setState(qsizetype index, State state) {
    m_activities[index].state = state;
    Q_EMIT activitiesChanged();
}

void ToolExecutor::setExecuting(bool executing) {
    if (m_isExecuting == executing)
        return;
    m_isExecuting = executing;
    Q_EMIT isExecutingChanged(executing);
}

void ToolExecutor::setHasExecutedLocalRead(bool executed) {
    if (m_hasExecutedLocalRead == executed)
        return;
    m_hasExecutedLocalRead = executed;
    Q_EMIT hasExecutedLocalReadChanged(executed);
}

} // namespace kestrolan
