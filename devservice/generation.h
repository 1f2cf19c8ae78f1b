#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

namespace kestrolan::devservice {

// What a model writes while it generates. Every call returns false once the client has gone or
// the service is stopping; the model then returns at once.
class GenerationSink {
public:
    virtual ~GenerationSink() = default;

    virtual bool content(const QString& text) = 0;
    // The first delta of tool call `index`: its id, type "function" and name.
    virtual bool toolCallStart(int index, const QString& id, const QString& name) = 0;
    virtual bool toolCallArguments(int index, const QString& piece) = 0;
    virtual bool comment(const QString& text) = 0;
    virtual bool rawData(const QByteArray& data) = 0;
    // Sends nothing for `duration`.
    virtual bool pause(std::chrono::milliseconds duration) = 0;
    // Waits this long before each later write.
    virtual void setPace(std::chrono::milliseconds delay) = 0;
};

struct TokenCounts {
    std::uint64_t prompt = 0;
    std::uint64_t completion = 0;
};

// How a generation ended, and what the stream's tail should say about it.
struct GenerationOutcome {
    enum class End {
        completed, // finish, usage, billing, [DONE]
        failed,    // billing, then the error event; the body ends
        drop,      // the connection is cut mid-body
        truncate,  // the body ends here, nothing more
    };
    enum class Billing {
        automatic,            // settled when completed; released when nothing was generated
        settled,              // charged, with the amount
        settledWithoutAmount, // charged, the event carries no amount
        unresolved,           // not charged; the event says usage is pending
        released,             // not charged
        none,                 // charged, but no billing event is sent
    };

    End end = End::completed;
    std::optional<QString> finishReason;
    std::optional<TokenCounts> usage; // the model's own count; else the service counts
    bool reportUsage = true;
    Billing billing = Billing::automatic;
    // For End::failed: the error event's envelope fields.
    QString errorMessage;
    QString errorType = QStringLiteral("server_error");
    QString errorCode;
};

// One reply being produced for one request.
class Generation {
public:
    virtual ~Generation() = default;

    // Prompt tokens to hold credit for.
    virtual std::uint64_t promptTokens() const = 0;
    // Prompt tokens to bill when the model reports no usage of its own.
    virtual std::uint64_t billedPromptTokens() const { return promptTokens(); }
    // Completion tokens to hold credit for (at least the request's output allowance).
    virtual std::uint64_t reservedCompletionTokens() const = 0;
    // Stream framing the model asks for (scripted tests).
    virtual bool crlf() const { return false; }
    virtual bool byteOrderMark() const { return false; }

    virtual GenerationOutcome run(GenerationSink& sink) = 0;
};

} // namespace kestrolan::devservice
