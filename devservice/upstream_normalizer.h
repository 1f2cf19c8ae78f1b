#pragma once

#include "generation.h"

#include <QHash>
#include <QJsonObject>
#include <QString>
#include <optional>

namespace kestrolan::devservice {

// Turns what an OpenAI-compatible server streams into the client's shape: content and tool
// calls only (no reasoning, refusals, logprobs or vendor fields), calls renumbered from 0 with
// an id and a name before any arguments, one choice, and a finish reason that agrees with the
// calls that were made.
class UpstreamNormalizer {
public:
    explicit UpstreamNormalizer(GenerationSink& sink);

    // One streamed chunk. Returns false when the sink refused (client gone) or the chunk
    // carried an error (see error()).
    bool chunk(const QJsonObject& chunk);
    // A whole, non-streamed completion, from a server that ignored "stream".
    bool completion(const QJsonObject& completion);

    const std::optional<QString>& error() const { return m_error; }
    const std::optional<TokenCounts>& usage() const { return m_usage; }
    bool sawFinish() const { return m_finish.has_value(); }
    QString finishReason() const;

private:
    struct Call {
        int index = 0;
        QString id;
        QString name;
        QString pendingArguments;
        bool started = false;
    };

    bool toolCallDelta(const QJsonObject& delta, int position);
    bool readChoice(const QJsonObject& choice, const QString& deltaKey);
    void readUsage(const QJsonObject& object);
    bool readError(const QJsonObject& object);

    GenerationSink& m_sink;
    QHash<int, Call> m_calls; // by the upstream's index
    int m_nextIndex = 0;
    bool m_startedCalls = false;
    std::optional<QString> m_finish;
    std::optional<TokenCounts> m_usage;
    std::optional<QString> m_error;
};

} // namespace kestrolan::devservice
