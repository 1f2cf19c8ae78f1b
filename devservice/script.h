#pragma once

#include "generation.h"

#include <QString>
#include <chrono>
#include <optional>
#include <vector>

namespace kestrolan::devservice {

// The directives of a message to the scripted model, one per line beginning with "@" (see
// devservice/README.md). Other lines are ignored. A line "@round" ends the directives of one
// round and starts those of the next.
struct Script {
    struct Step {
        enum class Kind {
            text,
            chunk,
            tool,
            raw,
            comment,
            stall,
            delay,
            error,
            drop,
            truncate,
            toolResults, // content listing the request's tool results, filled in by the model
        };
        Kind kind = Kind::text;
        QString text;                          // text, chunk, raw, comment, error message
        int index = 0;                         // tool
        QString id;                            // tool
        QString name;                          // tool
        QString arguments;                     // tool
        QString code;                          // error
        std::chrono::milliseconds duration{0}; // stall, delay
    };
    struct Rejection {
        int status = 400;
        QString code;
        QString message;
    };

    std::vector<Step> steps;
    bool finishSet = false;
    std::optional<QString> finishReason; // with finishSet: empty means no finish reason at all
    std::optional<TokenCounts> usage;
    bool reportUsage = true;
    GenerationOutcome::Billing billing = GenerationOutcome::Billing::automatic;
    bool crlf = false;
    bool byteOrderMark = false;
    std::optional<QString> thenText;
    std::optional<Rejection> rejection;

    // The directives of round `round` (0 before any "@round" line); every round of the message
    // is checked. `thenText` is the message's last @then wherever it stands, and `rounds` how
    // many rounds the message has. Throws ApiException (400, code "invalid_script") naming the
    // line of the first bad directive.
    static Script parse(const QString& message, int round = 0);

    int rounds = 1;

    bool hasToolCalls() const;
    // Bytes the steps generate (content, tool names and arguments).
    std::uint64_t plannedBytes() const;
};

} // namespace kestrolan::devservice
