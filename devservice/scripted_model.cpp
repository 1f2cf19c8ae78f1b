#include "scripted_model.h"

#include "api_exception.h"
#include "chat_completion_request.h"
#include "script.h"
#include "text_pieces.h"
#include "token_estimator.h"

#include <QStringList>
#include <algorithm>

namespace kestrolan::devservice {

namespace {

// Tool-call arguments travel in pieces this small, so every call spans several chunks.
constexpr qsizetype argumentPieceBytes = 8;

class ScriptedGeneration : public Generation {
public:
    ScriptedGeneration(Script script, std::uint64_t promptTokens, std::uint64_t allowance)
        : m_script(std::move(script))
        , m_promptTokens(promptTokens)
        , m_allowance(allowance) {}

    std::uint64_t promptTokens() const override { return m_promptTokens; }
    std::uint64_t reservedCompletionTokens() const override {
        const auto planned = m_script.usage
                                 ? m_script.usage->completion
                                 : TokenEstimator::tokensForBytes(m_script.plannedBytes());
        return std::max(m_allowance, planned);
    }
    bool crlf() const override { return m_script.crlf; }
    bool byteOrderMark() const override { return m_script.byteOrderMark; }

    GenerationOutcome run(GenerationSink& sink) override {
        GenerationOutcome outcome;
        outcome.usage = m_script.usage;
        outcome.reportUsage = m_script.reportUsage;
        outcome.billing = m_script.billing;
        outcome.finishReason = m_script.finishSet        ? m_script.finishReason
                               : m_script.hasToolCalls() ? QStringLiteral("tool_calls")
                                                         : QStringLiteral("stop");
        using Kind = Script::Step::Kind;
        for (const auto& step : m_script.steps) {
            bool ok = true;
            switch (step.kind) {
            case Kind::text:
                for (const auto& word : TextPieces::words(step.text))
                    if (!(ok = sink.content(word)))
                        break;
                break;
            case Kind::chunk:
                ok = sink.content(step.text);
                break;
            case Kind::tool:
                ok = sink.toolCallStart(step.index, step.id, step.name);
                for (const auto& piece : TextPieces::bytes(step.arguments, argumentPieceBytes))
                    if (!ok || !(ok = sink.toolCallArguments(step.index, piece)))
                        break;
                break;
            case Kind::raw:
                ok = sink.rawData(step.text.toUtf8());
                break;
            case Kind::comment:
                ok = sink.comment(step.text);
                break;
            case Kind::stall:
                ok = sink.pause(step.duration);
                break;
            case Kind::delay:
                sink.setPace(step.duration);
                break;
            case Kind::error:
                outcome.end = GenerationOutcome::End::failed;
                outcome.errorCode = step.code;
                outcome.errorMessage = step.text;
                return outcome;
            case Kind::drop:
                outcome.end = GenerationOutcome::End::drop;
                return outcome;
            case Kind::truncate:
                outcome.end = GenerationOutcome::End::truncate;
                return outcome;
            case Kind::toolResults: // replaced by its text before the run
                break;
            }
            if (!ok)
                return outcome;
        }
        return outcome;
    }

private:
    Script m_script;
    std::uint64_t m_promptTokens;
    std::uint64_t m_allowance;
};

bool producesReply(const Script& script) {
    using Kind = Script::Step::Kind;
    return std::any_of(script.steps.begin(), script.steps.end(), [](const Script::Step& step) {
        return step.kind != Kind::comment && step.kind != Kind::stall && step.kind != Kind::delay;
    });
}

// Runs of tool messages after the last user message: how many rounds of calls were answered.
int answeredRounds(const ChatCompletionRequest& request) {
    int rounds = 0;
    bool inRun = false;
    for (auto i = request.lastUserIndex() + 1; i < request.messages.size(); ++i) {
        const bool tool = request.messages[i].role == u"tool";
        rounds += tool && !inRun ? 1 : 0;
        inRun = tool;
    }
    return rounds;
}

// Every tool message of the request, one line each: its call's id, a space, its content.
QString toolResultLines(const ChatCompletionRequest& request) {
    QStringList lines;
    for (const auto& message : request.messages) {
        if (message.role == u"tool")
            lines.append(message.toolCallId.value_or(QString()) + u' ' + message.content);
    }
    return lines.isEmpty() ? QStringLiteral("No tool results.") : lines.join(u'\n');
}

} // namespace

std::unique_ptr<Generation> ScriptedModel::start(const ChatCompletionRequest& request,
                                                 std::uint64_t allowance) {
    const int round = answeredRounds(request);
    auto script = Script::parse(request.messages[request.lastUserIndex()].content, round);
    if (script.rejection)
        throw ApiException(script.rejection->status, script.rejection->message,
                           script.rejection->status >= 500
                               ? QStringLiteral("server_error")
                               : QStringLiteral("invalid_request_error"),
                           script.rejection->code);

    using Step = Script::Step;
    for (auto& step : script.steps) {
        if (step.kind == Step::Kind::toolResults) {
            step.kind = Step::Kind::chunk;
            step.text = toolResultLines(request);
        }
    }
    if (const auto results = request.toolResultsSinceLastUser(); round >= script.rounds) {
        // The tools of this turn have answered: reply in words instead of calling them again.
        const auto text = script.thenText.value_or(
            results == 1 ? QStringLiteral("Received 1 tool result.")
                         : QStringLiteral("Received %1 tool results.").arg(results));
        script.steps.clear();
        script.steps.push_back(Step{.kind = Step::Kind::text, .text = text});
        script.finishSet = false;
        script.usage.reset();
        script.reportUsage = true;
    } else if (!producesReply(script)) {
        script.steps.push_back(
            Step{.kind = Step::Kind::text, .text = QStringLiteral("Scripted reply.")});
    }

    const auto prompt = script.usage
                            ? script.usage->prompt
                            : TokenEstimator::tokensForBytes(std::uint64_t(request.bodyBytes));
    return std::make_unique<ScriptedGeneration>(std::move(script), prompt, allowance);
}

} // namespace kestrolan::devservice
