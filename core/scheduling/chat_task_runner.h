#pragma once

#include "scheduling/task_runner.h"

#include <QString>

namespace kestrolan {

class APIClient;
class AgentStore;
class ProjectStore;

// A run as the service sees it: one chat request with the task's prompt as the user message,
// the project's context as system text and the agent's instructions and model (else the task's
// model), no tools and the model's default output allowance. The reply is saved as a new chat
// titled with the task's name and the firing time. Nothing is sent while the account keeps zero
// data retention: the run is skipped.
class ChatTaskRunner : public TaskRunner {
public:
    // Characters of the reply kept as the run's preview.
    static constexpr qsizetype previewCharacters = 200;

    // The stores may be null when the account has none open; a task that needs one then fails.
    ChatTaskRunner(APIClient& client, ProjectStore* projects, AgentStore* agents);

    QCoro::Task<Outcome> run(ScheduledTask task, QDateTime scheduledFor,
                             std::stop_token stop) override;

    // The saved chat's title: the task's name and the firing time in the local time zone.
    static QString chatTitle(const QString& taskName, const QDateTime& scheduledFor);
    // The first `previewCharacters` characters (grapheme clusters) of `text`.
    static QString preview(const QString& text);

    static QString zeroRetentionReason();
    static QString missingAgentMessage();
    static QString missingProjectMessage();

private:
    QCoro::Task<Outcome> attempt(ScheduledTask task, QDateTime scheduledFor, std::stop_token stop);

    APIClient& m_client;
    ProjectStore* m_projects;
    AgentStore* m_agents;
};

} // namespace kestrolan
