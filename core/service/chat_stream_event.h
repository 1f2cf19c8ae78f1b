#pragma once

#include "conversation/tool_call.h"
#include "service/billing_usage.h"
#include "service/token_usage.h"

#include <QList>
#include <QString>
#include <variant>

namespace kestrolan {

// One thing a streamed chat reply yields. The alternatives keep the order of `Kind`.
struct ChatStreamEvent {
    enum class Kind { text, toolCalls, finish, billing, usage, done };

    // A piece of the reply's text.
    struct Text {
        QString content;
        bool operator==(const Text&) const = default;
    };
    // Every tool call of the round, complete and in index order; sent once, right before done.
    struct ToolCalls {
        QList<ToolCall> calls;
        bool operator==(const ToolCalls&) const = default;
    };
    // The model's finish reason ("stop", "tool_calls", "length", ...).
    struct Finish {
        QString reason;
        bool operator==(const Finish&) const = default;
    };
    // The stream ended properly.
    struct Done {
        bool operator==(const Done&) const = default;
    };

    using Value = std::variant<Text, ToolCalls, Finish, BillingUsage, TokenUsage, Done>;

    static ChatStreamEvent text(QString content) { return {Text{std::move(content)}}; }
    static ChatStreamEvent toolCalls(QList<ToolCall> calls) {
        return {ToolCalls{std::move(calls)}};
    }
    static ChatStreamEvent finish(QString reason) { return {Finish{std::move(reason)}}; }
    static ChatStreamEvent billing(BillingUsage usage) { return {std::move(usage)}; }
    static ChatStreamEvent usage(TokenUsage tokens) { return {tokens}; }
    static ChatStreamEvent done() { return {Done{}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }

    Value value;

    bool operator==(const ChatStreamEvent&) const = default;
};

} // namespace kestrolan
