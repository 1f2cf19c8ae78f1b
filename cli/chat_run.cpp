#include "chat_run.h"

#include "account/account_model.h"
#include "account/catalog_store.h"
#include "chat_reporter.h"
#include "command.h"
#include "command_line.h"
#include "console.h"
#include "conversation/chat_session.h"
#include "error.h"
#include "local_command.h"
#include "platform/settings_defaults.h"
#include "service_connection.h"
#include "storage/agent_store.h"
#include "storage/project_store.h"
#include "support/uuid_text.h"
#include "tools/attachment_service.h"
#include "tools/tool_executor.h"
#include "tools/web_tool_settings.h"
#include "workspace/workspace.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <algorithm>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

// The user's preferences with this run's choice of web tools laid over them: the flags decide,
// and nothing about them is written back.
class RunDefaults final : public Defaults {
public:
    RunDefaults(Defaults& base, WebToolSettings web)
        : m_base(base)
        , m_web(web) {}

    std::optional<QVariant> value(const QString& key) const override {
        if (key == WebToolSettings::searchEnabledKey)
            return QVariant(m_web.searchEnabled);
        if (key == WebToolSettings::fetchEnabledKey)
            return QVariant(m_web.fetchEnabled);
        return m_base.value(key);
    }
    void setValue(const QString& key, const QVariant& value) override {
        if (!isWebKey(key))
            m_base.setValue(key, value);
    }
    void remove(const QString& key) override {
        if (!isWebKey(key))
            m_base.remove(key);
    }

private:
    static bool isWebKey(const QString& key) {
        return key == WebToolSettings::searchEnabledKey || key == WebToolSettings::fetchEnabledKey;
    }

    Defaults& m_base;
    WebToolSettings m_web;
};

const QString interactiveHelp =
    QStringLiteral("Type a message and press Enter to send it. Commands:\n"
                   "  /save            save the chat to your account (and after every turn)\n"
                   "  /model ID        use another model from the next message on\n"
                   "  /access MODE [DIR]  local tools: off, ask, read-only or full\n"
                   "  /help            show this help\n"
                   "  /quit            leave (Ctrl-D too)\n"
                   "Ctrl-C stops a reply; at the prompt it leaves.");

// A line of --json input answering an approval: {"approval":"ID","allow":true}.
std::optional<std::pair<QUuid, bool>> approvalAnswer(const QString& line) {
    const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
    const QJsonValue id = object.value(u"approval");
    const QJsonValue allow = object.value(u"allow");
    if (!id.isString() || !allow.isBool() || QUuid::fromString(id.toString()).isNull())
        return std::nullopt;
    return std::pair{QUuid::fromString(id.toString()), allow.toBool()};
}

bool isYes(const QString& answer) {
    const QString word = answer.trimmed().toLower();
    return word == u"y" || word == u"yes";
}

// The failure's own text; a turn or setup step that throws is reported the same way.
QString describeFailure(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Error& error) {
        return error.description();
    } catch (const std::exception& error) {
        return QString::fromLocal8Bit(error.what());
    } catch (...) {
        return QStringLiteral("An unexpected error occurred.");
    }
}

} // namespace

ChatRun::ChatRun(const Console& console, ChatOptions options)
    : m_console(console)
    , m_options(std::move(options))
    , m_input(STDIN_FILENO)
    , m_stdinIsTerminal(::isatty(STDIN_FILENO) == 1) {
    connect(&m_interrupt, &InterruptSignal::interrupted, this, &ChatRun::interrupted);
}

ChatRun::~ChatRun() = default;

void ChatRun::err(const QString& line) const {
    if (m_reporter)
        m_reporter->note(line);
    else
        m_console.err(line);
}

QCoro::Task<std::optional<int>> ChatRun::prepare() {
    m_settings = std::make_unique<SettingsDefaults>();
    m_defaults = std::make_unique<RunDefaults>(
        *m_settings, WebToolSettings{m_options.webSearch, m_options.webFetch});
    try {
        m_connection = std::make_unique<ServiceConnection>();
    } catch (...) {
        co_return reportFailure(m_console, std::current_exception());
    }
    APIClient& client = m_connection->client();

    // Signed in first: without an account nothing else is worth loading.
    try {
        m_account = co_await client.account();
    } catch (...) {
        co_return reportFailure(m_console, std::current_exception(), m_connection.get());
    }
    m_accountModel = std::make_unique<AccountModel>(client);
    m_catalog = std::make_unique<CatalogStore>(client, *m_defaults);
    co_await m_catalog->refresh();
    if (const auto failure = m_catalog->errorMessage()) {
        m_console.err(*failure);
        co_return exitFailure;
    }

    QString model;
    if (m_options.model) {
        // An explicit choice is remembered as the last used model, as in the app.
        if (!m_catalog->select(*m_options.model)) {
            m_console.err(u"The model \"" + *m_options.model +
                          u"\" is not available. Run \"kestrolan-cli models\" for the list.");
            co_return exitFailure;
        }
        model = *m_options.model;
    } else if (m_catalog->selectedModelID()) {
        model = *m_catalog->selectedModelID();
    } else {
        m_console.err(QStringLiteral("No model is available."));
        co_return exitFailure;
    }

    createSession();
    if (m_options.continueID) {
        try {
            co_await m_session->load(*m_options.continueID);
        } catch (...) {
            m_console.err(describeFailure(std::current_exception()));
            co_return exitFailure;
        }
        if (const auto failure = m_session->errorMessage()) {
            m_console.err(*failure);
            co_return exitFailure;
        }
    }
    if (!m_options.model && m_options.continueID) {
        // A continued chat keeps its own model unless one was asked for.
    } else if (!m_session->selectModel(model, 0)) {
        m_console.err(u"The model \"" + model + u"\" is not available.");
        co_return exitFailure;
    }
    for (const QString& compared : m_options.compare) {
        if (!m_session->addSlot(compared)) {
            m_console.err(u"The model \"" + compared +
                          u"\" is not available, or the chat has three columns already. Run "
                          u"\"kestrolan-cli models\" for the list.");
            co_return exitFailure;
        }
    }

    SavedConversation::Settings settings = m_session->conversation().settings;
    settings.system = m_options.system.value_or(settings.system);
    settings.maxTokens = m_options.maxTokens.value_or(settings.maxTokens);
    settings.temperature = m_options.temperature.value_or(settings.temperature);
    if (settings != m_session->conversation().settings)
        m_session->setSettings(settings);

    if (const auto stop = co_await applyLocalChoices())
        co_return stop;

    if (m_options.access != LocalAccessMode::off) {
        const bool granted = co_await selectAccess(m_options.access, m_options.workspace);
        if (!granted)
            co_return exitFailure;
    }

    if (!m_options.attachments.isEmpty()) {
        QList<QUrl> files;
        for (const QString& path : m_options.attachments)
            files.append(QUrl::fromLocalFile(path));
        AttachmentService attachments;
        try {
            m_firstContext.attachments = co_await attachments.read(files);
        } catch (...) {
            m_console.err(describeFailure(std::current_exception()));
            co_return exitFailure;
        }
    }
    co_return std::nullopt;
}

QCoro::Task<std::optional<int>> ChatRun::applyLocalChoices() {
    if (!m_options.projectID && !m_options.agentID)
        co_return std::nullopt;
    try {
        // The account was fetched already: no second request for its id.
        const EncryptedLocalStorage storage = LocalCommand::storageOf(*m_connection, *m_account);
        if (m_options.agentID) {
            AgentStore store(storage);
            const QList<Agent> agents = co_await store.list();
            const auto agent = std::ranges::find(agents, *m_options.agentID, &Agent::id);
            if (agent == agents.end()) {
                m_console.err(u"No agent has the id " + uuidText(*m_options.agentID) + u'.');
                co_return exitFailure;
            }
            SavedConversation::Settings settings = m_session->conversation().settings;
            if (!m_options.temperature)
                settings.temperature = agent->temperature;
            if (!m_session->applyAgent(agent->turnInstructions(),
                                       m_options.model.value_or(agent->model), settings)) {
                m_console.err(QStringLiteral("This agent's model is unavailable. Choose another "
                                             "model with -m or \"kestrolan-cli agents edit\"."));
                co_return exitFailure;
            }
        }
        if (m_options.projectID) {
            ProjectStore store(storage);
            const QList<Project> projects = co_await store.list();
            const auto project = std::ranges::find(projects, *m_options.projectID, &Project::id);
            if (project == projects.end()) {
                m_console.err(u"No project has the id " + uuidText(*m_options.projectID) + u'.');
                co_return exitFailure;
            }
            m_project = project->turnInstructions(co_await store.projectFiles(project->id));
        }
    } catch (...) {
        co_return reportFailure(m_console, std::current_exception(), m_connection.get());
    }
    co_return std::nullopt;
}

void ChatRun::createSession() {
    m_session = std::make_unique<ChatSession>(m_connection->client(), *m_catalog, *m_defaults);
    m_session->setAccountID(m_account->id);
    m_session->setAccountModel(m_accountModel.get());
    // The session saves a new chat only when asked; a saved one again after every turn.
    m_session->setSavingAllowed([this] { return accountAllowsSaving(); });
    m_wantSave = m_options.save;
    m_reporter = std::make_unique<ChatReporter>(*m_session, m_options.json);
    connect(&m_session->tools(), &ToolExecutor::pendingApprovalChanged, this,
            &ChatRun::approvalChanged);
}

QCoro::Task<bool> ChatRun::selectAccess(LocalAccessMode mode, QString folder) {
    try {
        std::shared_ptr<Workspace> workspace;
        if (mode != LocalAccessMode::off)
            workspace =
                Workspace::open(QUrl::fromLocalFile(folder), mode == LocalAccessMode::fullAccess);
        m_session->tools().selectAccess(mode, workspace, m_connection->configuration().origin(),
                                        m_account->id.value_or(QUuid()), m_session->id(),
                                        m_options.acceptToolBilling, m_options.confirmFullAccess);
    } catch (...) {
        err(describeFailure(std::current_exception()));
        co_return false;
    }
    co_return true;
}

bool ChatRun::accountAllowsSaving() const {
    if (m_accountModel && m_accountModel->account())
        return m_accountModel->canSaveChats();
    return m_account && !m_account->zeroRetention.enabled;
}

QCoro::Task<int> ChatRun::run() {
    if (const auto stop = co_await prepare())
        co_return *stop;

    if (m_options.message) {
        // The message came with the command: standard input can answer approvals.
        m_approvals = m_options.json      ? Approvals::json
                      : m_stdinIsTerminal ? Approvals::terminal
                                          : Approvals::deny;
        if (m_approvals == Approvals::json)
            answerFromJson();
        co_return co_await runTurn(*m_options.message);
    }
    if (!m_stdinIsTerminal || m_options.json) {
        const QString message = co_await m_input.readAll();
        if (message.trimmed().isEmpty()) {
            m_console.err(QStringLiteral("kestrolan-cli chat: the message is empty\nRun "
                                         "\"kestrolan-cli chat --help\" for usage."));
            co_return exitUsage;
        }
        m_approvals = Approvals::deny; // standard input is spent
        co_return co_await runTurn(message);
    }
    m_approvals = Approvals::terminal;
    co_return co_await interactive();
}

QCoro::Task<int> ChatRun::runTurn(QString message) {
    TurnContext context;
    if (!std::exchange(m_sentFirst, true))
        context = m_firstContext;
    context.project = m_project;
    m_stopped = false;
    m_turnRunning = true;
    m_reporter->beginTurn();
    co_await m_session->send(std::move(message), std::move(context));
    m_turnRunning = false;
    if (m_wantSave && !m_session->savedID())
        co_await m_session->save();
    m_reporter->endTurn();
    m_interrupt.rearm();

    int code = exitSuccess;
    if (const auto failure = m_session->errorMessage()) {
        err(*failure);
        code = exitFailure;
    }
    const int saved = saveOutcome();
    if (m_stopped)
        co_return 130;
    co_return code != exitSuccess ? code : saved;
}

int ChatRun::saveOutcome() {
    if (const auto failure = m_session->saveError()) {
        err(*failure);
        return exitFailure;
    }
    if (!m_session->savedID()) {
        if (!m_wantSave)
            return exitSuccess;
        err(QStringLiteral("The chat was not saved."));
        return exitFailure;
    }
    if (!m_options.json)
        err(u"Saved as " + m_session->savedID()->toString(QUuid::WithoutBraces) + u'.');
    return exitSuccess;
}

void ChatRun::approvalChanged() {
    const auto& pending = m_session->tools().pendingApproval();
    if (!pending || pending->id == m_announced)
        return;
    m_announced = pending->id;
    const QUuid id = pending->id;
    const bool ask =
        m_approvals == Approvals::terminal || (m_approvals == Approvals::json && !m_input.atEnd());
    m_reporter->announceApproval(*pending, m_approvals == Approvals::terminal);
    if (m_approvals == Approvals::terminal) {
        askOnTerminal(id);
        return;
    }
    if (ask)
        return; // answered by a line of standard input
    err(m_approvals == Approvals::json
            ? QStringLiteral("Denied: standard input has ended, so no answer can come.")
            : QStringLiteral("Denied: approvals are asked on a terminal, or answered on "
                             "standard input with --json."));
    // Not from inside the executor's own announcement: it has not started waiting yet.
    QMetaObject::invokeMethod(
        this, [this, id] { m_session->tools().resolveApproval(false, id); }, Qt::QueuedConnection);
}

QCoro::Task<void> ChatRun::askOnTerminal(QUuid id) {
    const std::optional<QString> answer = co_await m_input.nextLine();
    const auto& pending = m_session->tools().pendingApproval();
    if (!pending || pending->id != id) {
        // Expired or stopped meanwhile: the line is the user's next input.
        if (answer)
            m_input.unread(*answer);
        co_return;
    }
    const bool allow = answer && isYes(*answer);
    m_session->tools().resolveApproval(allow, id);
}

QCoro::Task<void> ChatRun::answerFromJson() {
    while (const std::optional<QString> line = co_await m_input.nextLine()) {
        if (line->trimmed().isEmpty())
            continue;
        const auto answer = approvalAnswer(*line);
        if (!answer) {
            err(QStringLiteral("Ignored a line of standard input that is not "
                               "{\"approval\":\"ID\",\"allow\":true|false}."));
            continue;
        }
        m_session->tools().resolveApproval(answer->second, answer->first);
    }
    // No answer can come any more: what is waiting is denied.
    if (const auto& pending = m_session->tools().pendingApproval()) {
        err(QStringLiteral("Denied: standard input has ended, so no answer can come."));
        m_session->tools().resolveApproval(false, pending->id);
    }
}

QCoro::Task<bool> ChatRun::confirmOnTerminal(QString question) {
    err(question);
    std::fputs("Accept? [y/N] ", stderr);
    std::fflush(stderr);
    const std::optional<QString> answer = co_await m_input.nextLine();
    co_return answer&& isYes(*answer);
}

void ChatRun::interrupted() {
    if (m_turnRunning) {
        m_stopped = true;
        m_session->stop();
        return;
    }
    if (m_atPrompt) {
        m_interrupt.rearm();
        m_leave = true;
        m_input.interrupt();
        return;
    }
    // Setting up, or a command at the prompt: nothing is under way that must be closed.
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(130);
}

QCoro::Task<int> ChatRun::interactive() {
    err(u"Chatting with " + m_session->slotModels().join(u", ") + u". Type /help for commands.");
    while (true) {
        std::fputs("> ", stderr);
        std::fflush(stderr);
        m_atPrompt = true;
        const std::optional<QString> line = co_await m_input.nextLine();
        m_atPrompt = false;
        if (!line) {
            std::fputs("\n", stderr);
            co_return m_leave ? 130 : int(exitSuccess);
        }
        const QString text = line->trimmed();
        if (text.isEmpty())
            continue;
        if (text.startsWith(u'/')) {
            if (!co_await command(text))
                co_return exitSuccess;
            continue;
        }
        co_await runTurn(*line);
    }
}

QCoro::Task<bool> ChatRun::command(QString line) {
    const QStringList words = line.split(u' ', Qt::SkipEmptyParts);
    const QString name = words.first();
    if (name == u"/quit" || name == u"/exit")
        co_return false;
    if (name == u"/help") {
        err(interactiveHelp);
    } else if (name == u"/save") {
        m_wantSave = true;
        co_await m_session->save();
        saveOutcome();
    } else if (name == u"/model" && words.size() == 2) {
        if (m_catalog->select(words.at(1)) && m_session->selectModel(words.at(1), 0))
            err(u"Model: " + words.at(1));
        else
            err(u"The model \"" + words.at(1) +
                u"\" is not available. Run \"kestrolan-cli models\" for the list.");
    } else if (name == u"/access" && (words.size() == 2 || words.size() == 3)) {
        const auto mode = ChatOptions::accessFromName(words.at(1));
        const QString folder =
            words.size() == 3 ? QDir(words.at(2)).absolutePath() : m_options.workspace;
        if (!mode) {
            err(QStringLiteral("/access takes off, ask, read-only or full."));
            co_return true;
        }
        if (*mode != LocalAccessMode::off && !m_options.acceptToolBilling)
            m_options.acceptToolBilling =
                co_await confirmOnTerminal(ToolExecutor::billingDisclosure());
        if (*mode == LocalAccessMode::fullAccess && !m_options.confirmFullAccess)
            m_options.confirmFullAccess =
                co_await confirmOnTerminal(ToolExecutor::fullAccessDisclosure());
        if (co_await selectAccess(*mode, folder))
            err(u"Local access: " + words.at(1) +
                (*mode == LocalAccessMode::off ? QString() : u" in " + folder));
    } else {
        err(u"Unknown command \"" + line + u"\". Type /help for commands.");
    }
    co_return true;
}

} // namespace kestrolan::cli
