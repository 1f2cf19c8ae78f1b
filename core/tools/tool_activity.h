#pragma once

#include "conversation/tool_call.h"

#include <QDateTime>
#include <QString>
#include <optional>

namespace kestrolan {

// One line of the tool timeline: a call and how far it got.
struct ToolActivity {
    // In the order a call moves through them. reading to running are shown while an operation
    // is under way; completed to uncertain are final.
    enum class State {
        preparing,
        awaitingApproval,
        reading,
        searching,
        editing,
        running,
        completed,
        denied,
        stopped,
        failed,
        uncertain,
    };

    QString id; // the call's id
    ToolCall call;
    State state = State::preparing;
    std::optional<QString> result; // the text the model received
    QDateTime startedAt;
    std::optional<double> elapsed; // seconds, once final

    bool operator==(const ToolActivity&) const = default;

    // Model and tool text made safe to show.
    QString displayArguments() const;
    QString displayResult() const;

    static bool isFinal(State state);
    static QString toString(State state);
    static std::optional<State> stateFromString(QStringView text);
};

} // namespace kestrolan
