#pragma once

#include "conversation/saved_conversation.h"
#include "service/billing_usage.h"
#include "tools/tool_activity.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <cstdio>
#include <optional>
#include <vector>

namespace kestrolan {
class ChatSession;
struct ToolApproval;
} // namespace kestrolan

namespace kestrolan::cli {

// Shows a chat session's turns as they happen. Plain: the reply text on standard output as it
// streams; the tool timeline, meta lines, charges and notes on standard error. JSON: one event
// object per line on standard output (the README lists them); notes still go to standard error.
class ChatReporter : public QObject {
    Q_OBJECT

public:
    ChatReporter(ChatSession& session, bool json, std::FILE* out = stdout, std::FILE* err = stderr);

    // Before the session is asked to send: what follows belongs to the next turn.
    void beginTurn();
    // After the turn has ended (and saved): the rest of the text, each reply, its meta lines and
    // the charge summary, and in JSON the closing "done" event.
    void endTurn();

    // The question for one pending approval: its operation and target, the disclosure and the
    // note that closing or waiting denies it. Plain output ends with "Allow once? [y/N] " when
    // `prompt` is set; JSON gives the "approval" event.
    void announceApproval(const ToolApproval& approval, bool prompt);
    // A line on standard error (after ending a reply line there, so the two do not mix).
    void note(const QString& text);

private:
    struct ReplyProgress {
        QString shown; // the part of the current round's text already written
        bool headed = false;
    };

    void observe();
    void showText();
    void showTools();
    void showBilling();
    void writeOut(const QString& text);
    void writeErr(const QString& text);
    void emitEvent(const QJsonObject& event);
    const SavedConversation::Turn* currentTurn() const;
    bool severalSlots() const;
    bool showsCharge(const QString& summary) const;
    QString modelOfSlot(int slot) const;

    ChatSession& m_session;
    bool m_json;
    std::FILE* m_out;
    std::FILE* m_err;
    bool m_outLineOpen = false;
    bool m_outIsTerminal = false;
    bool m_inTurn = false;
    qsizetype m_turn = 0;
    QHash<int, ReplyProgress> m_replies;
    std::vector<std::optional<ToolActivity::State>> m_toolStates;
    // Columns answer one after another: the one at work is the last to have changed.
    int m_activeSlot = 0;
    // Billing: charges counted so far, the last billing event seen and the total then.
    int m_roundsSeen = 0;
    std::optional<BillingUsage> m_lastBilling;
    quint64 m_lastTotal = 0;
    QHash<int, int> m_roundOfSlot;
};

} // namespace kestrolan::cli
