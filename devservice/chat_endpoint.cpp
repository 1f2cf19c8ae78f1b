#include "chat_endpoint.h"

#include "api_exception.h"
#include "authenticator.h"
#include "catalog.h"
#include "chat_completion_request.h"
#include "chat_stream_emitter.h"
#include "echo_model.h"
#include "event_stream_writer.h"
#include "hold_guard.h"
#include "log.h"
#include "money.h"
#include "scripted_model.h"
#include "token_estimator.h"
#include "upstream_model.h"

#include <QDateTime>
#include <QUuid>

namespace kestrolan::devservice {

// Everything a reply stream needs after the handler has returned.
struct StreamedChat {
    CatalogModel model;
    std::unique_ptr<Generation> generation;
    std::unique_ptr<HoldGuard> hold;
};

namespace {

ApiException insufficientCredit() {
    return ApiException(402,
                        QStringLiteral("The account's available credit does not cover this "
                                       "request. Add credit or lower max_tokens."),
                        QStringLiteral("billing_error"), QStringLiteral("insufficient_credit"));
}

struct Settlement {
    std::optional<EventStreamWriter::Billing> event;
};

// Closes the hold as the outcome asks and describes it for the billing event.
Settlement settle(StreamedChat& chat, const GenerationOutcome& outcome, const TokenCounts& counts,
                  bool generatedAnything) {
    using Billing = GenerationOutcome::Billing;
    auto billing = outcome.billing;
    if (billing == Billing::automatic)
        billing = outcome.end == GenerationOutcome::End::failed && !generatedAnything
                      ? Billing::released
                      : Billing::settled;

    switch (billing) {
    case Billing::unresolved:
        chat.hold->release();
        return {EventStreamWriter::Billing{QStringLiteral("unresolved"), counts.prompt,
                                           counts.completion, std::nullopt}};
    case Billing::released:
        chat.hold->release();
        return {EventStreamWriter::Billing{QStringLiteral("released"), std::nullopt, std::nullopt,
                                           std::nullopt}};
    case Billing::automatic:
    case Billing::settled:
    case Billing::settledWithoutAmount:
    case Billing::none:
        break;
    }
    // A cost beyond what was held (an upstream that ignored max_tokens) is capped at the hold.
    const auto cost =
        chat.model.cost(counts.prompt, counts.completion).value_or(chat.hold->amount());
    const auto charged =
        chat.hold->settle(cost, Ledger::Usage{chat.model.id, counts.prompt, counts.completion,
                                              QStringLiteral("Chat with ") + chat.model.id});
    if (billing == Billing::none)
        return {};
    return {EventStreamWriter::Billing{QStringLiteral("settled"), counts.prompt, counts.completion,
                                       billing == Billing::settledWithoutAmount
                                           ? std::nullopt
                                           : std::optional(Money::format(charged))}};
}

} // namespace

ChatEndpoint::ChatEndpoint(Authenticator& authenticator, const Catalog& catalog, Ledger& ledger,
                           HttpClient& http)
    : m_authenticator(authenticator)
    , m_catalog(catalog)
    , m_ledger(ledger)
    , m_http(http) {}

ApiResponse ChatEndpoint::handle(const ApiRequest& request) {
    const auto account = m_authenticator.require(request);
    const auto chat = ChatCompletionRequest::parse(request.body);

    const auto* model = m_catalog.find(chat.model);
    if (!model || !model->available)
        throw ApiException(403,
                           QStringLiteral("The model \"") + chat.model +
                               QStringLiteral("\" is not available to this account."),
                           QStringLiteral("invalid_request_error"),
                           QStringLiteral("model_not_allowed"), QStringLiteral("model"));
    if (chat.maxTokens && *chat.maxTokens > model->maxOutputTokens)
        throw ApiException::invalidRequest(
            QStringLiteral("\"max_tokens\" must be at most %1 for ").arg(model->maxOutputTokens) +
                model->id + u'.',
            QStringLiteral("max_tokens"));
    if (chat.tools && !chat.tools->isEmpty() && !model->supportsTools())
        throw ApiException::invalidRequest(
            model->id + QStringLiteral(" does not support tool calling."), QStringLiteral("tools"),
            QStringLiteral("tools_not_supported"));
    const auto allowance = std::uint64_t(chat.maxTokens.value_or(model->defaultOutputTokens));

    auto streamed = std::make_shared<StreamedChat>();
    streamed->model = *model;
    if (model->upstream)
        streamed->generation = UpstreamModel::start(*model, chat, allowance, m_http);
    else if (model->id == Catalog::scriptedModel)
        streamed->generation = ScriptedModel::start(chat, allowance);
    else
        streamed->generation = EchoModel::start(chat, allowance);

    const auto worstCase = model->cost(streamed->generation->promptTokens(),
                                       streamed->generation->reservedCompletionTokens());
    if (!worstCase)
        throw insufficientCredit();
    const auto holdId = m_ledger.hold(account.id, *worstCase, QStringLiteral("chat ") + model->id);
    if (!holdId)
        throw insufficientCredit();
    streamed->hold = std::make_unique<HoldGuard>(m_ledger, *holdId, *worstCase);

    return ApiResponse::eventStream(
        [streamed](ResponseStream& out) { return stream(*streamed, out); });
}

ApiResponse::StreamEnd ChatEndpoint::stream(StreamedChat& chat, ResponseStream& out) {
    auto& generation = *chat.generation;
    const EventStreamWriter writer(
        QStringLiteral("chatcmpl-") + QUuid::createUuid().toString(QUuid::Id128), chat.model.id,
        QDateTime::currentSecsSinceEpoch(), generation.crlf());
    ChatStreamEmitter emitter(out, writer);

    try {
        QByteArray head = generation.byteOrderMark() ? QByteArray("\xEF\xBB\xBF") : QByteArray();
        if (!emitter.write(head + writer.roleChunk())) {
            chat.hold->release();
            return ApiResponse::StreamEnd::abort;
        }
        const auto outcome = generation.run(emitter);
        if (emitter.clientGone() || out.stopping()) {
            // Nobody receives the rest: no charge.
            chat.hold->release();
            return ApiResponse::StreamEnd::abort;
        }

        const auto counts = outcome.usage.value_or(
            TokenCounts{generation.billedPromptTokens(),
                        TokenEstimator::tokensForBytes(emitter.generatedBytes())});
        switch (outcome.end) {
        case GenerationOutcome::End::drop:
            chat.hold->release();
            return ApiResponse::StreamEnd::abort;
        case GenerationOutcome::End::truncate:
            chat.hold->release();
            return ApiResponse::StreamEnd::finished;
        case GenerationOutcome::End::failed: {
            const auto settlement = settle(chat, outcome, counts, emitter.generatedAnything());
            QByteArray tail;
            if (settlement.event)
                tail += writer.billingEvent(*settlement.event);
            tail += writer.errorEvent(
                ApiException(500, outcome.errorMessage, outcome.errorType, outcome.errorCode)
                    .envelope());
            emitter.write(tail);
            return ApiResponse::StreamEnd::finished;
        }
        case GenerationOutcome::End::completed:
            break;
        }

        QByteArray tail;
        if (outcome.finishReason)
            tail += writer.finishChunk(*outcome.finishReason);
        if (outcome.reportUsage)
            tail += writer.usageChunk(counts.prompt, counts.completion);
        const auto settlement = settle(chat, outcome, counts, emitter.generatedAnything());
        if (settlement.event)
            tail += writer.billingEvent(*settlement.event);
        tail += writer.done();
        emitter.write(tail);
        return ApiResponse::StreamEnd::finished;
    } catch (const std::exception& error) {
        qCWarning(serviceLog) << "Chat stream failed:" << error.what();
        return ApiResponse::StreamEnd::abort;
    }
}

} // namespace kestrolan::devservice
