// ChatSession's turn loop: the rounds of each reply, their stream events and tool calls.
#include "account/account_model.h"
#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "conversation/context_budget.h"
#include "conversation/round_request_builder.h"
#include "service/api_client.h"
#include "service/api_error.h"
#include "tools/tool_definition.h"
#include "tools/web_tool_settings.h"

#include <QDateTime>

namespace kestrolan {

QCoro::Task<void> ChatSession::runTurn(PreparedTurn prepared) {
    m_turnRunning = true;
    m_streamStop = std::stop_source();
    const std::stop_token stop = m_streamStop.get_token();
    const QStringList models = prepared.models;
    if (m_conversation.slots.isEmpty() && !models.first().isEmpty())
        m_conversation.slots = models;
    m_conversation.version = SavedConversation::currentVersion;
    SavedConversation::Turn turn;
    if (!prepared.context.attachments.isEmpty())
        turn.attachments = prepared.context.attachments;
    turn.user = prepared.text;
    for (qsizetype slot = 0; slot < models.size(); ++slot)
        turn.replies.append(SavedConversation::Reply{.slot = int(slot), .model = models.at(slot)});
    const QUuid turnID = turn.id;
    m_conversation.turns.append(std::move(turn));
    m_turnContexts.insert(turnID, prepared.context);
    const ChatMessage user{.role = ChatMessage::Role::user,
                           .content = prepared.context.userContent(prepared.text)};
    m_charges = {};
    m_billing.reset();
    m_usage.reset();
    m_errorMessage.reset();
    m_isDirty = true;
    m_tools->beginTurn();
    Q_EMIT turnAdded(int(m_conversation.turns.size() - 1));
    Q_EMIT changed();

    const bool granted = co_await m_slots.acquire(m_id, stop);
    if (granted) {
        m_isStreaming = true;
        Q_EMIT changed();
    }
    // The columns answer one after the other; a stop ends those not yet asked as well.
    for (qsizetype slot = 0; slot < models.size(); ++slot) {
        auto progress = std::make_shared<ReplyProgress>();
        progress->turnID = turnID;
        progress->slot = int(slot);
        Ending ending = Ending::stopped;
        if (!granted) {
            if (!stop.stop_requested()) {
                fail(turnID, int(slot), std::nullopt, noSlotMessage());
                ending = Ending::error;
            }
        } else if (!stop.stop_requested()) {
            QList<ChatMessage> messages = prepared.histories.at(slot);
            messages.append(user);
            ending = co_await runRounds(progress, models.at(slot), std::move(messages),
                                        prepared.context, stop);
        }
        if (ending == Ending::gone)
            break;
        endReply(*progress, ending);
    }
    if (granted)
        m_slots.release(m_id);
    co_await finishTurn();
}

QCoro::Task<ChatSession::Ending> ChatSession::runRounds(std::shared_ptr<ReplyProgress> progress,
                                                        QString model, QList<ChatMessage> messages,
                                                        TurnContext context, std::stop_token stop) {
    const QUuid turnID = progress->turnID;
    const int slot = progress->slot;
    const CatalogModel* entry = m_catalog.model(model);
    if (!entry || !m_catalog.isAvailable(model)) {
        fail(turnID, slot, std::nullopt, modelUnavailableMessage());
        co_return Ending::error;
    }
    const WebToolSettings web = WebToolSettings::load(m_defaults);
    // A copy of the catalog entry: the catalog may be refreshed while the turn waits.
    const RoundRequestBuilder builder(model, *entry, m_conversation.settings, std::move(context),
                                      web);
    if (const QString system = builder.systemText(); !system.isEmpty())
        messages.prepend(ChatMessage{.role = ChatMessage::Role::system, .content = system});

    QList<ChatMessage> exchanges;
    for (int round = 0; round < maxRequestsPerTurn; ++round) {
        // Offered afresh each round: access revoked mid-turn is no longer offered.
        const QList<ToolDefinition> offered =
            ToolDefinition::available(m_tools->mode(), web, builder.toolCalling());
        const ChatRequest request = builder.build(messages, offered);
        try {
            ContextBudget::validate(request.encoded(), builder.catalogModel().contextTokens,
                                    request.maxTokens.value_or(0), request.messages.size());
        } catch (const Error& error) {
            fail(turnID, slot, std::nullopt, error.description());
            co_return Ending::error;
        }

        progress->toolCalls.reset();
        progress->billed = false;
        progress->failure = nullptr;
        std::exception_ptr failure;
        try {
            co_await m_client.stream(request, eventSink(progress), stop);
        } catch (...) {
            failure = std::current_exception();
        }
        if (!reply(turnID, slot))
            co_return Ending::gone;
        // A round whose billing never came is pending; an absent charge cannot overflow.
        if (!progress->billed)
            addCharge(*progress, std::nullopt);
        if (!failure)
            failure = progress->failure;
        if (stop.stop_requested())
            co_return Ending::stopped;
        // Never sent again: the request may have been billed.
        if (failure) {
            try {
                std::rethrow_exception(failure);
            } catch (const APIError& error) {
                fail(turnID, slot, error.code(), error.description());
            } catch (const Error& error) {
                fail(turnID, slot, std::nullopt, error.description());
            } catch (const std::exception& error) {
                fail(turnID, slot, std::nullopt, QString::fromLocal8Bit(error.what()));
            }
            co_return Ending::error;
        }
        if (!progress->toolCalls || progress->toolCalls->isEmpty())
            co_return Ending::complete;

        const QList<ToolCall> calls = *progress->toolCalls;
        // Calls that could not all be kept in the reply's saved transcript are not run either:
        // nothing is done on the computer that the chat could not show afterwards.
        std::optional<QString> warning;
        if (round == maxRequestsPerTurn - 1)
            warning = roundLimitWarning();
        else if (calls.size() > maxCallsPerRound)
            warning = tooManyCallsWarning();
        else if (exchanges.size() + 1 + calls.size() > SavedConversation::maxExchangeMessages)
            warning = transcriptFullWarning();
        if (warning) {
            reply(turnID, slot)->meta.append({*warning, true});
            Q_EMIT replyChanged(turnID, slot);
            co_return Ending::complete;
        }

        // The round's text moves into the transcript beside the calls it came with.
        auto* current = reply(turnID, slot);
        const ChatMessage asking{
            .role = ChatMessage::Role::assistant, .content = current->text, .toolCalls = calls};
        exchanges.append(asking);
        messages.append(asking);
        current->exchanges = exchanges;
        current->text.clear();
        Q_EMIT replyChanged(turnID, slot);

        for (const ToolCall& call : calls) {
            if (stop.stop_requested())
                break;
            ChatMessage result = co_await m_tools->execute(
                call, m_client.configuration().origin(), m_accountID.value_or(QUuid()), m_id,
                offered, QPointer<APIClient>(&m_client), webBillingSink(progress));
            current = reply(turnID, slot);
            if (!current)
                co_return Ending::gone;
            exchanges.append(result);
            messages.append(result);
            current->exchanges = exchanges;
            Q_EMIT replyChanged(turnID, slot);
        }
        // Calls left unanswered are closed as cancelled when the chat continues.
        if (stop.stop_requested())
            co_return Ending::stoppedDuringTools;
    }
    co_return Ending::complete;
}

void ChatSession::endReply(const ReplyProgress& progress, Ending ending) {
    if (ending == Ending::stoppedDuringTools)
        m_errorMessage = stoppedDuringToolsReport();
    auto* current = reply(progress.turnID, progress.slot);
    if (!current)
        return;
    if (ending == Ending::stopped || ending == Ending::stoppedDuringTools) {
        current->state = SavedConversation::Reply::State::stopped;
        current->meta.append({stoppedLine(), false});
    }
    const RoundCharges& charges = progress.charges;
    if (charges.rounds > 1)
        current->meta.append(charges.metaLines());
    else if (charges.rounds == 1)
        current->meta.append({charges.chargeSummary(progress.lastBilling), charges.pending});
    Q_EMIT replyChanged(progress.turnID, progress.slot);
}

QCoro::Task<void> ChatSession::finishTurn() {
    m_isStreaming = false;
    m_isCompleting = true;
    Q_EMIT changed();

    // Forced: the balance shown must include what this turn cost.
    if (m_accountModel)
        co_await m_accountModel->refresh(true, QDateTime::currentDateTimeUtc());
    // A chat the user never saved stays on this computer.
    if (m_savedID)
        co_await save();
    if (m_onCompleted)
        co_await m_onCompleted();

    m_isCompleting = false;
    m_turnRunning = false;
    Q_EMIT changed();
    // Waiters resume from the event loop, never inside the turn that ends.
    m_completionWaiters.resumeAll();
}

void ChatSession::addCharge(ReplyProgress& progress, const std::optional<BillingUsage>& billing) {
    RoundCharges replyCharges = progress.charges;
    RoundCharges turnCharges = m_charges;
    replyCharges.append(billing);
    turnCharges.append(billing);
    progress.charges = replyCharges;
    m_charges = turnCharges;
    if (billing) {
        progress.lastBilling = billing;
        m_billing = billing;
    }
    Q_EMIT changed();
}

std::function<void(ChatStreamEvent)>
ChatSession::eventSink(std::shared_ptr<ReplyProgress> progress) {
    return [this, progress](ChatStreamEvent event) {
        auto* current = reply(progress->turnID, progress->slot);
        if (!current)
            return;
        if (auto* text = std::get_if<ChatStreamEvent::Text>(&event.value)) {
            current->text += text->content;
        } else if (auto* calls = std::get_if<ChatStreamEvent::ToolCalls>(&event.value)) {
            progress->toolCalls = std::move(calls->calls);
        } else if (auto* finish = std::get_if<ChatStreamEvent::Finish>(&event.value)) {
            current->finishReason = std::move(finish->reason);
        } else if (const auto* billing = std::get_if<BillingUsage>(&event.value)) {
            progress->billed = true;
            try {
                addCharge(*progress, *billing);
            } catch (const Error&) {
                progress->failure = std::current_exception();
            }
            return;
        } else if (const auto* usage = std::get_if<TokenUsage>(&event.value)) {
            m_usage = *usage;
            Q_EMIT changed();
            return;
        } else {
            return;
        }
        Q_EMIT replyChanged(progress->turnID, progress->slot);
    };
}

ToolExecutor::WebBillingCallback
ChatSession::webBillingSink(std::shared_ptr<ReplyProgress> progress) {
    // Throwing refuses the search result: a charge the client cannot read is not accepted.
    return [this, progress](std::optional<BillingUsage> billing) { addCharge(*progress, billing); };
}

} // namespace kestrolan
