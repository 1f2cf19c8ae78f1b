#pragma once

#include "account/account.h"
#include "chat_options.h"
#include "conversation/turn_context.h"
#include "input_reader.h"
#include "interrupt_signal.h"

#include <QCoroTask>
#include <QObject>
#include <QUuid>
#include <memory>
#include <optional>

namespace kestrolan {
class AccountModel;
class CatalogStore;
class ChatSession;
class Defaults;
} // namespace kestrolan

namespace kestrolan::cli {

class ChatReporter;
class Console;
class ServiceConnection;

// One run of `kestrolan-cli chat`: the service connection, catalog, account and chat session it
// sets up, the turns it sends, how approvals are answered and what Ctrl-C does.
class ChatRun : public QObject {
    Q_OBJECT

public:
    ChatRun(const Console& console, ChatOptions options);
    ~ChatRun() override;

    // The process exit status.
    QCoro::Task<int> run();

private:
    // How approvals are answered in this run.
    enum class Approvals { json, terminal, deny };

    QCoro::Task<std::optional<int>> prepare();
    // The local project and agent named on the command line.
    QCoro::Task<std::optional<int>> applyLocalChoices();
    void createSession();
    QCoro::Task<int> runTurn(QString message);
    QCoro::Task<int> interactive();
    // Runs one /command; false for /quit.
    QCoro::Task<bool> command(QString line);
    QCoro::Task<void> answerFromJson();
    QCoro::Task<void> askOnTerminal(QUuid id);
    QCoro::Task<bool> confirmOnTerminal(QString question);
    QCoro::Task<bool> selectAccess(LocalAccessMode mode, QString folder);
    void approvalChanged();
    void interrupted();
    bool accountAllowsSaving() const;
    int saveOutcome();
    void err(const QString& line) const;

    const Console& m_console;
    ChatOptions m_options;
    std::unique_ptr<Defaults> m_settings;
    std::unique_ptr<Defaults> m_defaults; // the settings, with this run's web tools
    std::unique_ptr<ServiceConnection> m_connection;
    std::unique_ptr<CatalogStore> m_catalog;
    std::unique_ptr<AccountModel> m_accountModel;
    std::optional<Account> m_account;
    std::unique_ptr<ChatSession> m_session;
    std::unique_ptr<ChatReporter> m_reporter;
    InputReader m_input;
    InterruptSignal m_interrupt;
    TurnContext m_firstContext; // the attachments go with the first message only
    std::optional<TurnContext::Instructions> m_project; // goes with every message
    bool m_sentFirst = false;
    Approvals m_approvals = Approvals::deny;
    bool m_stdinIsTerminal = false;
    bool m_turnRunning = false;
    bool m_stopped = false;
    bool m_wantSave = false;
    bool m_atPrompt = false;
    bool m_leave = false; // Ctrl-C at the interactive prompt
    QUuid m_announced;
};

} // namespace kestrolan::cli
