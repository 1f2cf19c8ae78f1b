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
    // Reply columns a conversation may compare side by side.
    static constexpr int maxSlots = 3;

    static QString stoppedLine();
    static QString stoppedDuringToolsReport();
    static QString noSlotMessage();
    static QString modelUnavailableMessage();
    static QString roundLimitWarning();
    static QString tooManyCallsWarning();
    static QString transcriptInvalidMessage();
    static QString transcriptFullWarning();
    // Asked by the caller before an edit is sent, since the edit drops what follows it.
    static QString replaceLaterMessagesTitle();
    static QString replaceLaterMessagesExplanation();
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

    // Asked before every save; false while the account keeps zero data retention. Unset, nothing
    // is saved.
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
    // Refreshed, forced, after every turn, so the balance shows the charges.
    void setAccountModel(AccountModel* accountModel);

    // Runs one turn with the user's text and what it is sent with: each column's model answers
    // in turn, each reply with its own rounds and charges. A context without an agent gets the
    // applied one. Returns when the turn has ended, the account was refreshed, a chat saved
    // before was saved again, and onCompleted ran. Ignored while a turn runs or a chat loads, or
    // when there is nothing to send.
    QCoro::Task<void> send(QString text, TurnContext context);
    // Ends the running turn: its stream is dropped and the tools under way are cancelled.
    void stop();
    // The model of reply column `slot` for the following turns (`slot` may be one past the last
    // column, below maxSlots, to add one); false for a model the catalog does not offer.
    bool selectModel(const QString& modelID, int slot = 0);
    // Stores the conversation on the account; a new chat is stored only by this call. Not allowed
    // or failed, the reason goes to saveError and no request is made for a document that does
    // not validate.
    QCoro::Task<void> save();
    // Returns once no turn runs.
    QCoro::Task<void> waitUntilIdle();

    // The charge line shown for the last turn, over all of its replies.
    QString chargeSummary() const { return m_charges.chargeSummary(m_billing); }

    // --- agent ---
    // Uses an agent for the following turns: its instructions go with every turn whose context
    // names no agent of its own, its model becomes column 0's, and its settings replace the
    // conversation's. A model the catalog does not offer refuses the whole change (false).
    // applyAgent(nullopt, nullopt, nullopt) stops using the agent and keeps model and settings.
    bool applyAgent(std::optional<TurnContext::Instructions> agent,
                    std::optional<QString> model = std::nullopt,
                    std::optional<SavedConversation::Settings> settings = std::nullopt);
    const std::optional<TurnContext::Instructions>& agent() const { return m_agent; }

    // --- reply columns ---
    // The model of each column the next send asks, in column order: the conversation's, or the
    // catalog's selected model while none was chosen. Empty when there is neither.
    QStringList slotModels() const;
    // Adds a column asking `model`; false when there are maxSlots already, the catalog does not
    // offer the model, or a turn runs.
    bool addSlot(QString model);
    // Drops column `slot` with its replies in every turn; later columns move down by one. False
    // for the last column left, an index out of range, or while a turn runs.
    bool removeSlot(int slot);

    // --- saved chats ---
    // Replaces the conversation with the saved chat `savedID` and continues it: later turns send
    // its tool transcripts back. isLoading() while it is fetched; a failure goes to errorMessage
    // and keeps the conversation on screen. Ignored while a turn runs.
    QCoro::Task<void> load(QUuid savedID);

    // --- editing ---
    // Removes the turns after `turnID`; false for an unknown turn or while a turn runs or loads.
    bool truncateAfter(QUuid turnID);
    // Sends `text` in place of turn `turnID`: that turn and every later one are removed, then
    // the edit runs as a new turn. Input that send() would refuse removes nothing. The caller
    // asks replaceLaterMessagesTitle() first.
    QCoro::Task<void> edit(QUuid turnID, QString text, TurnContext context);
    // Asks again: edit() of turn `turnID` with its own text and context.
    QCoro::Task<void> regenerate(QUuid turnID);

Q_SIGNALS:
    // Session state changed: flags, errors, charges, settings, columns. Not emitted for every
    // streamed piece of text; replyChanged() is.
    void changed();
    // A turn was appended at `index` of conversation().turns.
    void turnAdded(int index);
    // The turns from `first` to the end were removed.
    void turnsRemoved(int first);
    // The whole transcript was replaced (a chat was loaded, a column removed).
    void transcriptReset();
    // The reply of column `slot` in turn `turnID` changed: its text grew while streaming, or its
    // state, transcript or meta lines changed. Views update that one reply.
    void replyChanged(QUuid turnID, int slot);

private:
    // A turn checked and ready to run: nothing of it is in the conversation yet.
    struct PreparedTurn {
        QString text;
        TurnContext context;
        QStringList models;
        // What each column's model has seen so far, before the new user message.
        QList<QList<ChatMessage>> histories;
    };
    // What one reply has received; shared with its stream's event sink and its web billing.
    struct ReplyProgress {
        QUuid turnID;
        int slot = 0;
        RoundCharges charges;
        std::optional<BillingUsage> lastBilling;
        // The round under way.
        std::optional<QList<ToolCall>> toolCalls;
        bool billed = false;
        std::exception_ptr failure; // a billing event the charges refused
    };
    // How a reply's rounds came to an end.
    enum class Ending { complete, error, stopped, stoppedDuringTools, gone };

    // Checks a turn's input against the first `keptTurns` turns; nullopt when it cannot be sent
    // (the reason is in errorMessage or saveError).
    std::optional<PreparedTurn> prepareTurn(QString text, TurnContext context, qsizetype keptTurns);
    QCoro::Task<void> runTurn(PreparedTurn prepared);
    QCoro::Task<Ending> runRounds(std::shared_ptr<ReplyProgress> progress, QString model,
                                  QList<ChatMessage> messages, TurnContext context,
                                  std::stop_token stop);
    void endReply(const ReplyProgress& progress, Ending ending);
    QCoro::Task<void> finishTurn();
    // Adds one round's or one web search's billing to the reply and to the turn; throws, with
    // neither changed, for a charge that cannot be read.
    void addCharge(ReplyProgress& progress, const std::optional<BillingUsage>& billing);
    // Built outside the coroutines so that no lambda there captures a coroutine's frame.
    std::function<void(ChatStreamEvent)> eventSink(std::shared_ptr<ReplyProgress> progress);
    ToolExecutor::WebBillingCallback webBillingSink(std::shared_ptr<ReplyProgress> progress);
    qsizetype turnIndex(const QUuid& turnID) const;
    SavedConversation::Reply* reply(const QUuid& turnID, int slot);
    void fail(const QUuid& turnID, int slot, std::optional<QString> code, const QString& message);
    void removeTurnsFrom(qsizetype first);

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
    std::optional<TurnContext::Instructions> m_agent;
    bool m_turnRunning = false;
    // Renewed by every load: an older load's answer is dropped.
    quint64 m_loadGeneration = 0;
};

} // namespace kestrolan
