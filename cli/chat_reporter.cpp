#include "chat_reporter.h"

#include "account/account_model.h"
#include "command_line.h"
#include "conversation/chat_session.h"
#include "tools/tool_approval.h"
#include "tools/tool_operation.h"
#include "tools/tool_text.h"

#include <QJsonArray>
#include <QTimeZone>
#include <cmath>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

QJsonValue orNull(const std::optional<QString>& text) {
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

// Model and tool text reaches a terminal only through the display filter, on one line.
QString oneLine(const QString& text) {
    QString line = ToolText::escaped(text);
    line.replace(u'\n', u' ').replace(u'\t', u' ');
    return line;
}

// What a call is about, for the timeline: a call that does not decode shows its raw arguments.
std::pair<QString, QString> describe(const ToolCall& call) {
    try {
        const ToolOperation operation(call);
        return {operation.name(), operation.target()};
    } catch (const std::exception&) {
        return {call.function.name, call.function.arguments};
    }
}

QString elapsedText(double seconds) {
    const auto milliseconds = qint64(std::llround(seconds * 1000));
    if (milliseconds < 1000)
        return QString::number(milliseconds) + u" ms";
    return QString::number(seconds, 'f', 1) + u" s";
}

} // namespace

ChatReporter::ChatReporter(ChatSession& session, bool json, std::FILE* out, std::FILE* err)
    : m_session(session)
    , m_json(json)
    , m_out(out)
    , m_err(err)
    , m_outIsTerminal(::isatty(::fileno(out)) == 1) {
    connect(&session, &ChatSession::changed, this, &ChatReporter::observe);
    connect(&session, &ChatSession::replyChanged, this, [this](const QUuid&, int slot) {
        m_activeSlot = slot;
        observe();
    });
    ToolExecutor& tools = session.tools();
    connect(&tools, &ToolExecutor::activitiesChanged, this, &ChatReporter::observe);
}

void ChatReporter::beginTurn() {
    m_turn = m_session.conversation().turns.size();
    m_replies.clear();
    m_toolStates.clear();
    m_roundsSeen = 0;
    m_lastBilling.reset();
    m_lastTotal = 0;
    m_roundOfSlot.clear();
    m_activeSlot = 0;
    m_inTurn = true;
}

const SavedConversation::Turn* ChatReporter::currentTurn() const {
    const auto& turns = m_session.conversation().turns;
    return m_turn < turns.size() ? &turns.at(m_turn) : nullptr;
}

bool ChatReporter::severalSlots() const {
    const auto* turn = currentTurn();
    return turn && turn->replies.size() > 1;
}

QString ChatReporter::modelOfSlot(int slot) const {
    if (const auto* turn = currentTurn()) {
        for (const auto& reply : turn->replies) {
            if (reply.slot == slot)
                return reply.model;
        }
    }
    return {};
}

void ChatReporter::observe() {
    if (!m_inTurn)
        return;
    showText();
    showBilling();
    showTools();
}

void ChatReporter::showText() {
    const auto* turn = currentTurn();
    if (!turn)
        return;
    for (const auto& reply : turn->replies) {
        ReplyProgress& progress = m_replies[reply.slot];
        // A round that called tools takes its text into the transcript: the next round's text
        // starts afresh.
        if (!reply.text.startsWith(progress.shown))
            progress.shown.clear();
        const QString delta = reply.text.mid(progress.shown.size());
        progress.shown = reply.text;
        if (delta.isEmpty())
            continue;
        if (m_json) {
            emitEvent({{QStringLiteral("type"), QStringLiteral("text")},
                       {QStringLiteral("slot"), reply.slot},
                       {QStringLiteral("delta"), delta}});
            continue;
        }
        if (!progress.headed && severalSlots()) {
            if (m_outLineOpen)
                writeOut(QStringLiteral("\n"));
            writeOut(u"== " + oneLine(reply.model) + u" ==\n");
        }
        progress.headed = true;
        writeOut(ToolText::escaped(delta));
    }
}

void ChatReporter::showBilling() {
    const RoundCharges& charges = m_session.charges();
    while (m_roundsSeen < charges.rounds) {
        ++m_roundsSeen;
        const int slot = m_activeSlot;
        // Charges are announced as they are added: one added while tools run is a web search's,
        // any other closes an inference round.
        const bool webSearch = m_session.tools().isExecuting();
        std::optional<BillingUsage> billing;
        if (!webSearch) {
            const bool repeated = m_session.billing() == m_lastBilling && m_lastBilling &&
                                  charges.totalMillionths > m_lastTotal;
            if (m_session.billing() != m_lastBilling || repeated)
                billing = m_session.billing();
            m_lastBilling = m_session.billing();
            ++m_roundOfSlot[slot];
        }
        const int round = std::max(0, m_roundOfSlot.value(slot) - 1);
        if (m_json) {
            emitEvent({{QStringLiteral("type"), QStringLiteral("billing")},
                       {QStringLiteral("slot"), slot},
                       {QStringLiteral("round"), round},
                       {QStringLiteral("source"),
                        webSearch ? QStringLiteral("web_search") : QStringLiteral("inference")},
                       {QStringLiteral("state"),
                        billing ? BillingUsage::toString(billing->state) : QStringLiteral("none")},
                       {QStringLiteral("charged_usd"),
                        orNull(billing ? billing->chargedUSD : std::nullopt)}});
        }
    }
    m_lastTotal = charges.totalMillionths;
}

void ChatReporter::showTools() {
    const auto& activities = m_session.tools().activities();
    if (qsizetype(m_toolStates.size()) > activities.size())
        m_toolStates.clear(); // a new turn emptied the timeline
    m_toolStates.resize(std::size_t(activities.size()));
    for (qsizetype i = 0; i < activities.size(); ++i) {
        const ToolActivity& activity = activities.at(i);
        auto& shown = m_toolStates[std::size_t(i)];
        if (shown == activity.state)
            continue;
        shown = activity.state;
        if (m_json) {
            QJsonValue elapsed(QJsonValue::Null);
            if (activity.elapsed)
                elapsed = qint64(std::llround(*activity.elapsed * 1000));
            emitEvent({{QStringLiteral("type"), QStringLiteral("tool")},
                       {QStringLiteral("slot"), m_activeSlot},
                       {QStringLiteral("id"), activity.id},
                       {QStringLiteral("name"), activity.call.function.name},
                       {QStringLiteral("arguments"), activity.call.function.arguments},
                       {QStringLiteral("state"), ToolActivity::toString(activity.state)},
                       {QStringLiteral("result"), orNull(activity.result)},
                       {QStringLiteral("elapsed_ms"), elapsed}});
            continue;
        }
        const auto [name, target] = describe(activity.call);
        QString line = u"Tool " + oneLine(name) +
                       (target.isEmpty() ? QString() : QStringLiteral(" ")) + oneLine(target) +
                       u": " + ToolActivity::toString(activity.state);
        if (activity.elapsed)
            line += u" (" + elapsedText(*activity.elapsed) + u')';
        writeErr(line);
    }
}

void ChatReporter::endTurn() {
    observe();
    m_inTurn = false;
    if (m_outLineOpen)
        writeOut(QStringLiteral("\n"));
    if (const auto* turn = currentTurn()) {
        for (const auto& reply : turn->replies) {
            if (m_json) {
                QJsonArray meta;
                for (const auto& line : reply.meta)
                    meta.append(QJsonObject{{QStringLiteral("text"), line.text},
                                            {QStringLiteral("error"), line.error}});
                QJsonValue error(QJsonValue::Null);
                if (reply.error)
                    error = QJsonObject{{QStringLiteral("code"), orNull(reply.error->code)},
                                        {QStringLiteral("message"), reply.error->message}};
                emitEvent(
                    {{QStringLiteral("type"), QStringLiteral("reply")},
                     {QStringLiteral("slot"), reply.slot},
                     {QStringLiteral("model"), reply.model},
                     {QStringLiteral("state"), SavedConversation::Reply::toString(reply.state)},
                     {QStringLiteral("finish_reason"), orNull(reply.finishReason)},
                     {QStringLiteral("text"), reply.text},
                     {QStringLiteral("meta"), meta},
                     {QStringLiteral("error"), error}});
                continue;
            }
            const QString prefix = severalSlots() ? oneLine(reply.model) + u": " : QString();
            for (const auto& line : reply.meta)
                writeErr(prefix + (line.error ? u"Warning: " : u"") + oneLine(line.text));
        }
    }
    if (m_json) {
        QJsonValue savedID(QJsonValue::Null);
        if (m_session.savedID())
            savedID = m_session.savedID()->toString(QUuid::WithoutBraces);
        emitEvent({{QStringLiteral("type"), QStringLiteral("done")},
                   {QStringLiteral("charge_summary"), m_session.chargeSummary()},
                   {QStringLiteral("saved_id"), savedID},
                   {QStringLiteral("error"), orNull(m_session.errorMessage())},
                   {QStringLiteral("save_error"), orNull(m_session.saveError())}});
    } else if (const QString summary = m_session.chargeSummary(); !showsCharge(summary)) {
        writeErr(summary);
    }
}

// A turn of one reply has its charge among the reply's lines already.
bool ChatReporter::showsCharge(const QString& summary) const {
    const auto* turn = currentTurn();
    if (!turn || turn->replies.size() != 1)
        return false;
    for (const auto& line : turn->replies.first().meta) {
        if (summary == line.text || summary == line.text + u'.')
            return true;
    }
    return false;
}

void ChatReporter::announceApproval(const ToolApproval& approval, bool prompt) {
    if (m_json) {
        emitEvent({{QStringLiteral("type"), QStringLiteral("approval")},
                   {QStringLiteral("id"), approval.id.toString(QUuid::WithoutBraces)},
                   {QStringLiteral("tool"), approval.operation.name()},
                   {QStringLiteral("target"), approval.operation.target()},
                   {QStringLiteral("disclosure"), approval.disclosure()},
                   {QStringLiteral("expires_at"),
                    approval.expiresAt.toUTC().toString(Qt::ISODateWithMs)}});
        return;
    }
    writeErr(u"Approval needed: " + oneLine(approval.operation.name()) + u' ' +
             oneLine(approval.operation.target()));
    writeErr(approval.disclosure());
    writeErr(ToolApproval::sheetNote());
    if (prompt) {
        const QByteArray question = "Allow once? [y/N] ";
        std::fwrite(question.constData(), 1, std::size_t(question.size()), m_err);
        std::fflush(m_err);
    }
}

void ChatReporter::note(const QString& text) {
    writeErr(text);
}

void ChatReporter::writeOut(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), m_out);
    std::fflush(m_out);
    m_outLineOpen = !text.endsWith(u'\n');
}

void ChatReporter::writeErr(const QString& text) {
    // On a terminal the reply's open line is closed first, so a note never lands inside it.
    if (m_outLineOpen && m_outIsTerminal && !m_json)
        writeOut(QStringLiteral("\n"));
    const QByteArray bytes = (text + u'\n').toUtf8();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), m_err);
    std::fflush(m_err);
}

void ChatReporter::emitEvent(const QJsonObject& event) {
    const QByteArray bytes = (compactJson(event) + u'\n').toUtf8();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), m_out);
    std::fflush(m_out);
}

} // namespace kestrolan::cli
