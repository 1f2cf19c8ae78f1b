#include "conversation/chat_session.h"

#include "account/account_model.h"
#include "account/catalog_store.h"
#include "conversation/round_request_builder.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "support/checked.h"

#include <algorithm>

namespace kestrolan {

QString ChatSession::stoppedLine() {
    return QStringLiteral("Response stopped.");
}

QString ChatSession::stoppedDuringToolsReport() {
    return QStringLiteral("Stopped. Inspect interrupted edits before retrying.");
}

QString ChatSession::noSlotMessage() {
    return QStringLiteral("Too many chats are answering right now. Try again when one has "
                          "finished.");
}

QString ChatSession::modelUnavailableMessage() {
    return QStringLiteral("This model is not available. Choose another model.");
}

QString ChatSession::roundLimitWarning() {
    return QStringLiteral("The model still asked for tools after eight requests; they were not "
                          "run. Send another message to continue.");
}

QString ChatSession::tooManyCallsWarning() {
    return QStringLiteral("The model asked for more than four tools at once; none were run.");
}

QString ChatSession::transcriptInvalidMessage() {
    return QStringLiteral("The local tool transcript could not be validated. Inspect it before "
                          "saving or continuing.");
}

QString ChatSession::transcriptFullWarning() {
    return QStringLiteral("The model asked for more tools than one reply can keep; they were not "
                          "run. Send another message to continue.");
}

QString ChatSession::replaceLaterMessagesTitle() {
    return QStringLiteral("Replace later messages?");
}

QString ChatSession::replaceLaterMessagesExplanation() {
    return QStringLiteral("Sending this edit removes the messages after it.");
}

QString ChatSession::safetyText() {
    return RoundRequestBuilder::safetyText();
}

ChatSession::ChatSession(APIClient& client, CatalogStore& catalog, Defaults& defaults,
                         ChatLoopSlots& slots, QObject* parent)
    : QObject(parent)
    , m_tools(std::make_unique<ToolExecutor>())
    , m_client(client)
    , m_catalog(catalog)
    , m_defaults(defaults)
    , m_slots(slots) {}

ChatSession::~ChatSession() {
    m_streamStop.request_stop();
}

void ChatSession::setAccountModel(AccountModel* accountModel) {
    m_accountModel = accountModel;
}

QStringList ChatSession::slotModels() const {
    if (!m_conversation.slots.isEmpty())
        return m_conversation.slots;
    if (const auto selected = m_catalog.selectedModelID(); selected && !selected->isEmpty())
        return {*selected};
    return {};
}

bool ChatSession::selectModel(const QString& modelID, int slot) {
    QStringList models = slotModels();
    if (slot < 0 || slot > models.size() || slot >= maxSlots || !m_catalog.isAvailable(modelID))
        return false;
    if (slot == models.size())
        models.append(modelID);
    else
        models[slot] = modelID;
    m_conversation.slots = models;
    m_isDirty = true;
    Q_EMIT changed();
    return true;
}

bool ChatSession::addSlot(QString model) {
    if (m_turnRunning)
        return false;
    return selectModel(model, int(slotModels().size()));
}

bool ChatSession::removeSlot(int slot) {
    QStringList models = slotModels();
    if (m_turnRunning || models.size() < 2 || slot < 0 || slot >= models.size())
        return false;
    models.removeAt(slot);
    m_conversation.slots = models;
    for (auto& turn : m_conversation.turns) {
        turn.replies.removeIf([slot](const SavedConversation::Reply& r) { return r.slot == slot; });
        for (auto& kept : turn.replies) {
            if (kept.slot > slot)
                --kept.slot;
        }
    }
    m_isDirty = true;
    Q_EMIT transcriptReset();
    Q_EMIT changed();
    return true;
}

bool ChatSession::applyAgent(std::optional<TurnContext::Instructions> agent,
                             std::optional<QString> model,
                             std::optional<SavedConversation::Settings> settings) {
    if (model && !m_catalog.isAvailable(*model))
        return false;
    if (model)
        selectModel(*model, 0);
    if (settings)
        m_conversation.settings = std::move(*settings);
    m_agent = std::move(agent);
    m_isDirty = true;
    Q_EMIT changed();
    return true;
}

void ChatSession::stop() {
    m_streamStop.request_stop();
    m_tools->cancel();
}

QCoro::Task<void> ChatSession::waitUntilIdle() {
    while (m_turnRunning)
        co_await m_completionWaiters.next();
}

qsizetype ChatSession::turnIndex(const QUuid& turnID) const {
    // The running turn is the last one: search from the end.
    for (qsizetype i = m_conversation.turns.size() - 1; i >= 0; --i) {
        if (m_conversation.turns.at(i).id == turnID)
            return i;
    }
    return -1;
}

SavedConversation::Reply* ChatSession::reply(const QUuid& turnID, int slot) {
    const qsizetype index = turnIndex(turnID);
    if (index < 0)
        return nullptr;
    auto& replies = m_conversation.turns[index].replies;
    if (slot >= 0 && slot < replies.size() && replies[slot].slot == slot)
        return &replies[slot];
    const auto found =
        std::find_if(replies.begin(), replies.end(),
                     [slot](const SavedConversation::Reply& r) { return r.slot == slot; });
    return found == replies.end() ? nullptr : &*found;
}

void ChatSession::fail(const QUuid& turnID, int slot, std::optional<QString> code,
                       const QString& message) {
    m_errorMessage = message;
    if (auto* current = reply(turnID, slot)) {
        current->state = SavedConversation::Reply::State::error;
        current->error = SavedConversation::ReplyError{std::move(code), message};
        Q_EMIT replyChanged(turnID, slot);
    }
}

std::optional<ChatSession::PreparedTurn> ChatSession::prepareTurn(QString text, TurnContext context,
                                                                  qsizetype keptTurns) {
    if (text.trimmed().isEmpty() && context.attachments.isEmpty())
        return std::nullopt;
    try {
        context.validate();
    } catch (const Error& error) {
        m_errorMessage = error.description();
        Q_EMIT changed();
        return std::nullopt;
    }
    if (!context.agent)
        context.agent = m_agent;
    PreparedTurn prepared{.text = std::move(text), .context = std::move(context)};
    prepared.models = slotModels();
    if (prepared.models.isEmpty())
        prepared.models.append(QString()); // answered with modelUnavailableMessage()

    SavedConversation kept;
    const SavedConversation* seen = &m_conversation;
    if (keptTurns < m_conversation.turns.size()) {
        kept = m_conversation;
        kept.turns.resize(keptTurns);
        seen = &kept;
    }
    // An earlier reply's transcript that cannot be sent back stops the chat here, before
    // anything is added or billed.
    try {
        for (qsizetype slot = 0; slot < prepared.models.size(); ++slot)
            prepared.histories.append(seen->inferenceMessages(int(slot)));
    } catch (const Error&) {
        m_saveError = transcriptInvalidMessage();
        Q_EMIT changed();
        return std::nullopt;
    }
    return prepared;
}

QCoro::Task<void> ChatSession::send(QString text, TurnContext context) {
    if (m_turnRunning || m_isLoading)
        co_return;
    auto prepared = prepareTurn(std::move(text), std::move(context), m_conversation.turns.size());
    if (prepared)
        co_await runTurn(std::move(*prepared));
}

void ChatSession::removeTurnsFrom(qsizetype first) {
    for (qsizetype i = first; i < m_conversation.turns.size(); ++i)
        m_turnContexts.remove(m_conversation.turns.at(i).id);
    m_conversation.turns.resize(first);
    m_isDirty = true;
    Q_EMIT turnsRemoved(int(first));
    Q_EMIT changed();
}

bool ChatSession::truncateAfter(QUuid turnID) {
    const qsizetype index = turnIndex(turnID);
    if (m_turnRunning || m_isLoading || index < 0)
        return false;
    if (index + 1 < m_conversation.turns.size())
        removeTurnsFrom(index + 1);
    return true;
}

QCoro::Task<void> ChatSession::edit(QUuid turnID, QString text, TurnContext context) {
    const qsizetype index = turnIndex(turnID);
    if (m_turnRunning || m_isLoading || index < 0)
        co_return;
    auto prepared = prepareTurn(std::move(text), std::move(context), index);
    if (!prepared)
        co_return;
    removeTurnsFrom(index);
    co_await runTurn(std::move(*prepared));
}

QCoro::Task<void> ChatSession::regenerate(QUuid turnID) {
    const qsizetype index = turnIndex(turnID);
    if (index < 0)
        co_return;
    const auto& turn = m_conversation.turns.at(index);
    const QString text = turn.user;
    TurnContext context;
    if (const auto found = m_turnContexts.constFind(turnID); found != m_turnContexts.cend())
        context = *found;
    else
        context.attachments = turn.attachments.value_or(QList<WireAttachment>{});
    co_await edit(turnID, text, std::move(context));
}

QCoro::Task<void> ChatSession::load(QUuid savedID) {
    if (m_turnRunning)
        co_return;
    checkedIncrement(m_loadGeneration);
    const quint64 generation = m_loadGeneration;
    m_isLoading = true;
    m_errorMessage.reset();
    Q_EMIT changed();

    std::optional<SavedConversation> loaded;
    std::optional<QString> failure;
    try {
        loaded = co_await m_client.chat(savedID);
    } catch (const Error& error) {
        failure = error.description();
    } catch (const std::exception& error) {
        failure = QString::fromLocal8Bit(error.what());
    }
    // A later load owns the flags and the outcome.
    if (generation != m_loadGeneration)
        co_return;
    m_isLoading = false;
    if (!loaded) {
        m_errorMessage = failure;
        Q_EMIT changed();
        co_return;
    }
    m_conversation = std::move(*loaded);
    m_savedID = savedID;
    m_turnContexts.clear();
    for (const auto& turn : m_conversation.turns) {
        m_turnContexts.insert(turn.id, TurnContext{.attachments = turn.attachments.value_or(
                                                       QList<WireAttachment>{})});
    }
    m_charges = {};
    m_billing.reset();
    m_usage.reset();
    m_saveError.reset();
    m_isDirty = false;
    m_tools->restoreLocalReadHistory(m_conversation);
    Q_EMIT transcriptReset();
    Q_EMIT changed();
}

QCoro::Task<void> ChatSession::save() {
    if (m_isSaving || m_conversation.turns.isEmpty())
        co_return;
    if (!m_savingAllowed || !m_savingAllowed()) {
        m_saveError = ClientError(ClientError::Kind::zeroRetention).description();
        Q_EMIT changed();
        co_return;
    }
    for (const auto& turn : m_conversation.turns) {
        for (const auto& saved : turn.replies) {
            try {
                if (saved.exchanges)
                    SavedConversation::completedExchanges(*saved.exchanges);
            } catch (const Error&) {
                m_saveError = transcriptInvalidMessage();
                Q_EMIT changed();
                co_return;
            }
        }
    }
    const QUuid chatID = m_savedID.value_or(QUuid::createUuid());
    const SavedConversation document = m_conversation;
    const quint64 generation = m_loadGeneration;
    m_isSaving = true;
    Q_EMIT changed();
    try {
        const SavedChatSummary summary = co_await m_client.saveChat(chatID, document, true);
        // A chat loaded meanwhile is not the one just saved.
        if (generation != m_loadGeneration) {
            m_isSaving = false;
            Q_EMIT changed();
            co_return;
        }
        m_savedID = summary.id;
        m_saveError.reset();
        // Changes made while the save was in flight are still unsaved.
        m_isDirty = m_conversation.encoded() != document.encoded();
        if (m_onSaved)
            m_onSaved(summary);
    } catch (const Error& error) {
        m_saveError = error.description();
    }
    m_isSaving = false;
    Q_EMIT changed();
}

} // namespace kestrolan
