#pragma once

#include "conversation/chat_loop_slots.h"
#include "conversation/round_charges.h"
#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
#include "conversation/turn_context.h"
#include "service/billing_usage.h"
#include "service/chat_stream_event.h"
#include "service/token_usage.h"
#include "support/wait_list.h"
#include "tools/tool_executor.h"

#include <QCoroTask>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QUuid>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrolan {

class AccountModel;
class APIClient;
class CatalogStore;
class Defaults;
struct CatalogModel;
struct ChatRequest;
struct WebToolSettings;

// One open conversation: runs a turn when the user sends a message, streams each reply, lets the
// tool executor answer the tools the model asks for, bills every inference round separately and
// saves the result. Main thread. The owner stops it and awaits waitUntilIdle() before destroying
// it.
class ChatSession : public QObject {
    Q_OBJECT

public:
    // Requests one turn may make, and calls one round may ask for and still have them run.
    static constexpr int maxRequestsPerTurn = 8;
    static constexpr qsizetype maxCallsPerRound = SavedConversation::maxCallsPerMessage;

    static QString stoppedLine();
    static QString stoppedDuringToolsReport();
    static QString noSlotMessage();
    static QString modelUnavailableMessage();
    static QString roundLimitWarning();
    static QString tooManyCallsWarning();
    static QString transcriptInvalidMessage();
    // Put before every request's system text: what tools return never carries authority.
    static QString safetyText();

    ChatSession(APIClient& client, CatalogStore& catalog, Defaults& defaults,
                ChatLoopSlots& slots = ChatLoopSlots::shared(), QObject* parent = nullptr);
    ~ChatSession() override;

    const QUuid& id() const { return m_id; }
    ToolExecutor& tools() { return *m_tools; }
    const RoundCharges& charges() const { return m_charges; }
    const std::optional<QUuid>& savedID() const { return m_savedID; }
    const SavedConversation& conversation() const { return m_conversation; }
    bool isStreaming() const { return m_isStreaming; }
    bool isSaving() const { return m_isSaving; }
    bool isLoading() const { return m_isLoading; }
    bool isCompleting() const { return m_isCompleting; }
    bool isDirty() const { return m_isDirty; }
    const std::optional<QString>& saveError() const { return m_saveError; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    const std::optional<BillingUsage>& billing() const { return m_billing; }
    const std::optional<TokenUsage>& usage() const { return m_usage; }
    const QHash<QUuid, TurnContext>& turnContexts() const { return m_turnContexts; }

    void setSavingAllowed(std::function<bool()> savingAllowed) {
        m_savingAllowed = std::move(savingAllowed);
    }
    void setOnSaved(std::function<void(SavedChatSummary)> onSaved) {
        m_onSaved = std::move(onSaved);
    }
    void setOnCompleted(std::function<QCoro::Task<void>()> onCompleted) {
        m_onCompleted = std::move(onCompleted);
    }
    // The request settings as the user typed them; parsed when each request is built.
    void setSettings(SavedConversation::Settings settings) {
        m_conversation.settings = std::move(settings);
        m_isDirty = true;
        Q_EMIT changed();
    }
    // The signed-in account: tool calls run only under a grant of this account.
    void setAccountID(std::optional<QUuid> accountID) { m_accountID = accountID; }
    // Refreshed after every turn that reached the service, so the balance shows the charges.
    void setAccountModel(AccountModel* accountModel) { m_accountModel = accountModel; }

    // Runs one turn with the user's text and what it is sent with; returns when the turn has
    // ended, saved and completed. Ignored while a turn runs or when there is nothing to send.
    QCoro::Task<void> send(QString text, TurnContext context);
    // Ends the running turn: its stream is dropped and the tools under way are cancelled.
    void stop();
    // The model of reply column `slot` for the following turns; false for a model the catalog
    // does not offer.
    bool selectModel(const QString& modelID, int slot = 0);
    // Stores the conversation on the account when saving is allowed; failures go to saveError.
    QCoro::Task<void> save();
    // Returns once no turn runs.
    QCoro::Task<void> waitUntilIdle();

    // The charge line shown for the last turn.
    QString chargeSummary() const { return m_charges.chargeSummary(m_billing); }

Q_SIGNALS:
    void changed();

private:
    // What one round's stream brought so far.
    struct RoundProgress {
        QString text;
        std::optional<QList<ToolCall>> toolCalls;
        bool billed = false;
        std::exception_ptr failure; // a billing event the charges refused
    };
    // How a turn's rounds came to an end.
    enum class Ending { complete, error, stopped, stoppedDuringTools, gone };

    QCoro::Task<Ending> runRounds(QUuid turnID, QString model, QList<ChatMessage> messages,
                                  TurnContext context, std::stop_token stop);
    QCoro::Task<void> finishTurn(QUuid turnID, Ending ending);
    ChatRequest makeRequest(const QString& model, const QList<ChatMessage>& messages,
                            const CatalogModel& catalogModel,
                            const QList<ToolDefinition>& offered) const;
    QString systemText(const TurnContext& context, const WebToolSettings& web,
                       bool toolCalling) const;
    // Built outside the coroutines so that no lambda there captures a coroutine's frame.
    std::function<void(ChatStreamEvent)> eventSink(std::shared_ptr<RoundProgress> progress,
                                                   QUuid turnID);
    ToolExecutor::WebBillingCallback webBillingSink();
    SavedConversation::Reply* reply(const QUuid& turnID);
    void fail(const QUuid& turnID, std::optional<QString> code, const QString& message);
    QString modelOfSlot(int slot) const;

    QUuid m_id = QUuid::createUuid();
    std::unique_ptr<ToolExecutor> m_tools;
    RoundCharges m_charges;
    std::optional<QUuid> m_savedID;
    SavedConversation m_conversation;
    bool m_isStreaming = false;
    bool m_isSaving = false;
    bool m_isLoading = false;
    bool m_isCompleting = false;
    bool m_isDirty = false;
    std::optional<QString> m_saveError;
    std::optional<QString> m_errorMessage;
    std::optional<BillingUsage> m_billing;
    std::optional<TokenUsage> m_usage;
    std::function<bool()> m_savingAllowed;
    std::function<void(SavedChatSummary)> m_onSaved;
    std::function<QCoro::Task<void>()> m_onCompleted;
    APIClient& m_client;
    CatalogStore& m_catalog;
    Defaults& m_defaults;
    QHash<QUuid, TurnContext> m_turnContexts;
    // The running turn's handle: stop() fires it.
    std::stop_source m_streamStop;
    WaitList m_completionWaiters;

    ChatLoopSlots& m_slots;
    std::optional<QUuid> m_accountID;
    QPointer<AccountModel> m_accountModel;
    bool m_turnRunning = false;
};

} // namespace kestrolan
