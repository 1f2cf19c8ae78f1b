#include "scheduling/chat_task_runner.h"

#include "conversation/chat_request.h"
#include "conversation/round_charges.h"
#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
#include "conversation/turn_context.h"
#include "service/api_client.h"
#include "storage/agent_store.h"
#include "storage/project_store.h"

#include <QTextBoundaryFinder>
#include <algorithm>
#include <memory>

namespace kestrolan {
namespace {

// What the stream delivered; shared with the event sink, which may outlive a failed await.
struct StreamedReply {
    QString text;
    std::optional<QString> finishReason;
    std::optional<BillingUsage> billing;
};

std::function<void(ChatStreamEvent)> collect(std::shared_ptr<StreamedReply> reply) {
    return [reply](ChatStreamEvent event) {
        if (const auto* text = std::get_if<ChatStreamEvent::Text>(&event.value))
            reply->text += text->content;
        else if (const auto* finish = std::get_if<ChatStreamEvent::Finish>(&event.value))
            reply->finishReason = finish->reason;
        else if (const auto* billing = std::get_if<BillingUsage>(&event.value))
            reply->billing = *billing;
    };
}

TaskRunner::Outcome failed(QString message) {
    return {.status = TaskRun::Status::failed, .error = std::move(message)};
}

QString describe(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Error& error) {
        return error.description();
    } catch (const std::exception& error) {
        return QString::fromLocal8Bit(error.what());
    }
}

template <typename T>
const T* findByID(const QList<T>& items, const QUuid& id) {
    const auto found =
        std::find_if(items.begin(), items.end(), [&](const T& item) { return item.id == id; });
    return found == items.end() ? nullptr : &*found;
}

const CatalogModel* findModel(const QList<CatalogModel>& models, const QString& id) {
    const auto found = std::find_if(models.begin(), models.end(),
                                    [&](const CatalogModel& model) { return model.id == id; });
    return found == models.end() ? nullptr : &*found;
}

} // namespace

ChatTaskRunner::ChatTaskRunner(APIClient& client, ProjectStore* projects, AgentStore* agents)
    : m_client(client)
    , m_projects(projects)
    , m_agents(agents) {}

QString ChatTaskRunner::zeroRetentionReason() {
    return QStringLiteral("Zero Data Retention is on, so scheduled tasks do not run. Nothing was "
                          "sent.");
}

QString ChatTaskRunner::missingAgentMessage() {
    return QStringLiteral("The task’s agent no longer exists. Choose another agent.");
}

QString ChatTaskRunner::missingProjectMessage() {
    return QStringLiteral("The task’s project no longer exists. Edit the task.");
}

QString ChatTaskRunner::chatTitle(const QString& taskName, const QDateTime& scheduledFor) {
    return taskName + u" — " +
           scheduledFor.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString ChatTaskRunner::preview(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1) {
        if (++count == previewCharacters)
            return text.left(finder.position());
    }
    return text;
}

QCoro::Task<TaskRunner::Outcome> ChatTaskRunner::run(ScheduledTask task, QDateTime scheduledFor,
                                                     std::stop_token stop) {
    try {
        Outcome outcome = co_await attempt(std::move(task), std::move(scheduledFor), stop);
        co_return outcome;
    } catch (...) {
        co_return failed(describe(std::current_exception()));
    }
}

QCoro::Task<TaskRunner::Outcome> ChatTaskRunner::attempt(ScheduledTask task, QDateTime scheduledFor,
                                                         std::stop_token stop) {
    // Asked afresh for every run: the setting may have changed since the task was made.
    const Account account = co_await m_client.account(stop);
    if (account.zeroRetention.enabled)
        co_return Outcome{.status = TaskRun::Status::skipped, .error = zeroRetentionReason()};

    TurnContext context;
    std::optional<Agent> agent;
    if (task.agentID) {
        if (!m_agents)
            co_return failed(missingAgentMessage());
        const QList<Agent> agents = co_await m_agents->list();
        const Agent* found = findByID(agents, *task.agentID);
        if (!found)
            co_return failed(missingAgentMessage());
        agent = *found;
        context.agent = agent->turnInstructions();
    }
    if (task.projectID) {
        if (!m_projects)
            co_return failed(missingProjectMessage());
        const QList<Project> projects = co_await m_projects->list();
        const Project* found = findByID(projects, *task.projectID);
        if (!found)
            co_return failed(missingProjectMessage());
        const Project project = *found;
        const QList<ProjectFile> files = co_await m_projects->projectFiles(project.id);
        context.project = project.turnInstructions(files);
    }

    const QString model = agent ? agent->model : task.model.value_or(QString());
    const Catalog catalog = co_await m_client.catalog(stop);
    const CatalogModel* entry = findModel(catalog.models, model);
    if (!entry || !entry->available)
        co_return failed(QStringLiteral("This model is not available. Choose another model."));

    ChatRequest request{.model = model};
    if (const QString system = context.instructions(); !system.isEmpty())
        request.messages.append(ChatMessage{.role = ChatMessage::Role::system, .content = system});
    request.messages.append(ChatMessage{.role = ChatMessage::Role::user, .content = task.prompt});
    request.maxTokens = int(std::min<qint64>(entry->defaultOutputTokens, INT_MAX));
    if (agent) {
        if (const auto temperature = agent->temperatureValue())
            request.temperature = temperature->toDouble();
    }

    auto reply = std::make_shared<StreamedReply>();
    co_await m_client.stream(std::move(request), collect(reply), stop);

    RoundCharges charges;
    charges.append(reply->billing);
    SavedConversation::Reply saved;
    saved.model = model;
    saved.text = reply->text;
    saved.finishReason = reply->finishReason;
    saved.meta.append({charges.chargeSummary(reply->billing), charges.pending});
    SavedConversation::Turn turn;
    turn.user = task.prompt;
    turn.replies.append(saved);
    SavedConversation conversation;
    conversation.version = SavedConversation::currentVersion;
    conversation.title = chatTitle(task.name, scheduledFor);
    conversation.slots = QStringList{model};
    conversation.turns.append(turn);

    const SavedChatSummary summary =
        co_await m_client.saveChat(QUuid::createUuid(), conversation, true, stop);
    co_return Outcome{.status = TaskRun::Status::succeeded,
                      .chatID = summary.id,
                      .preview = preview(reply->text)};
}

} // namespace kestrolan
