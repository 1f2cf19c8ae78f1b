#include "echo_model.h"

#include "chat_completion_request.h"
#include "text_pieces.h"
#include "token_estimator.h"

namespace kestrolan::devservice {

namespace {

class EchoGeneration : public Generation {
public:
    EchoGeneration(QString text, std::uint64_t promptTokens, std::uint64_t allowance)
        : m_text(std::move(text))
        , m_promptTokens(promptTokens)
        , m_allowance(allowance) {}

    std::uint64_t promptTokens() const override { return m_promptTokens; }
    std::uint64_t reservedCompletionTokens() const override { return m_allowance; }

    GenerationOutcome run(GenerationSink& sink) override {
        GenerationOutcome outcome;
        outcome.finishReason = QStringLiteral("stop");
        // The allowance in tokens is four bytes each.
        auto budget = m_allowance * 4;
        for (const auto& word : TextPieces::words(m_text)) {
            const auto size = std::uint64_t(word.toUtf8().size());
            const auto piece = size <= budget ? word : TextPieces::prefix(word, qsizetype(budget));
            if (!piece.isEmpty() && !sink.content(piece))
                return outcome;
            if (size > budget) {
                outcome.finishReason = QStringLiteral("length");
                break;
            }
            budget -= size;
        }
        return outcome;
    }

private:
    QString m_text;
    std::uint64_t m_promptTokens;
    std::uint64_t m_allowance;
};

} // namespace

std::unique_ptr<Generation> EchoModel::start(const ChatCompletionRequest& request,
                                             std::uint64_t allowance) {
    auto text = request.messages[request.lastUserIndex()].content;
    if (text.trimmed().isEmpty())
        text = QStringLiteral("(empty message)");
    return std::make_unique<EchoGeneration>(
        std::move(text), TokenEstimator::tokensForBytes(std::uint64_t(request.bodyBytes)),
        allowance);
}

} // namespace kestrolan::devservice
