#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/task_store.h"
#include "storage/agent_store.h"
#include "storage/encrypted_local_storage.h"
#include "storage/legacy_import.h"
#include "storage/local_privacy_error.h"
#include "storage/project_store.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

const QString projectID = u"11111111-2222-4333-8444-555555555555"_s;
const QString agentID = u"66666666-7777-4888-9999-aaaaaaaaaaaa"_s;
const QString taskID = u"bbbbbbbb-cccc-4ddd-8eee-ffffffffffff"_s;
const QString created = u"2024-05-01T08:30:00.000Z"_s;

QJsonArray legacyProjects() {
    return {QJsonObject{
        {u"id"_s, projectID},
        {u"name"_s, u"Launch"_s},
        {u"instructions"_s, u"Answer in French."_s},
        {u"createdAt"_s, created},
        {u"updatedAt"_s, created},
        {u"files"_s,
         QJsonArray{QJsonObject{{u"name"_s, u"plan.md"_s}, {u"text"_s, u"Ship on Monday."_s}},
                    QJsonObject{{u"name"_s, u"notes.txt"_s}, {u"text"_s, u"n"_s}}}},
    }};
}

QJsonArray legacyAgents() {
    return {QJsonObject{{u"id"_s, agentID},
                        {u"name"_s, u"Reviewer"_s},
                        {u"instructions"_s, u"Review."_s},
                        {u"model"_s, u"a-model-long-gone"_s},
                        {u"temperature"_s, u"0.4"_s},
                        {u"createdAt"_s, created}}};
}

QJsonObject legacyTasks() {
    return {{u"tasks"_s, QJsonArray{QJsonObject{{u"id"_s, taskID},
                                                {u"name"_s, u"Morning news"_s},
                                                {u"prompt"_s, u"Summarise the news."_s},
                                                {u"cron"_s, u"0 9 * * *"_s},
                                                {u"enabled"_s, true},
                                                {u"notify"_s, false},
                                                {u"createdAt"_s, created}}}},
            {u"lastScheduledFire"_s, QJsonObject()},
            {u"claimedRuns"_s, QJsonArray()}};
}

QJsonArray legacyRuns() {
    return {QJsonObject{{u"id"_s, QUuid::createUuid().toString(QUuid::WithoutBraces)},
                        {u"taskID"_s, taskID},
                        {u"scheduledFor"_s, u"2024-05-02T09:00:00.000Z"_s},
                        {u"startedAt"_s, u"2024-05-02T09:00:01.000Z"_s},
                        {u"finishedAt"_s, u"2024-05-02T09:00:09.000Z"_s},
                        {u"status"_s, u"succeeded"_s}}};
}

// One account's stores over real sealed files, with the older layout's plaintext files in the
// app's data folder beside Local/.
class LegacyImportTest : public ::testing::Test {
protected:
    LegacyImportTest()
        : m_dataFolder(m_folder.filePath(u"Kestrolan"_s))
        , m_storage(m_dataFolder + u"/Local"_s,
                    LocalAccountContext::make(QUrl(u"https://example.com"_s), QUuid::createUuid()),
                    std::make_shared<MemoryLocalKeyStore>())
        , m_projects(m_storage)
        , m_agents(m_storage)
        , m_tasks(m_storage) {
        QDir().mkpath(m_dataFolder);
    }

    void put(const QString& name, const QByteArray& bytes) {
        QFile file(m_dataFolder + u'/' + name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
    }
    void put(const QString& name, const QJsonDocument& document) { put(name, document.toJson()); }
    void putAll() {
        put(u"projects.json"_s, QJsonDocument(legacyProjects()));
        put(u"agents.json"_s, QJsonDocument(legacyAgents()));
        put(u"scheduled-tasks.json"_s, QJsonDocument(legacyTasks()));
        put(u"task-runs.json"_s, QJsonDocument(legacyRuns()));
    }
    QStringList plaintextLeft() const {
        return QDir(m_dataFolder).entryList({u"*.json"_s}, QDir::Files, QDir::Name);
    }

    LegacyImport::Summary import() {
        return runTask(LegacyImport::run(m_dataFolder, &m_projects, &m_agents, &m_tasks));
    }

    QTemporaryDir m_folder;
    QString m_dataFolder;
    EncryptedLocalStorage m_storage;
    ProjectStore m_projects;
    AgentStore m_agents;
    TaskStore m_tasks;
};

} // namespace

TEST_F(LegacyImportTest, AGoodFolderIsImportedWholeAndItsPlaintextRemoved) {
    putAll();
    EXPECT_THROW(runTask(m_projects.list()), LocalPrivacyError);

    const auto summary = import();
    EXPECT_EQ(summary.imported.projects.size(), 1);
    EXPECT_EQ(summary.imported.agents.size(), 1);
    EXPECT_EQ(summary.imported.tasks, 1);
    EXPECT_EQ(summary.imported.runs, 1);
    EXPECT_TRUE(summary.notRemoved.isEmpty());
    EXPECT_TRUE(plaintextLeft().isEmpty());

    const auto projects = runTask(m_projects.list());
    ASSERT_EQ(projects.size(), 1);
    EXPECT_EQ(projects.first().id, QUuid::fromString(projectID));
    EXPECT_EQ(projects.first().name, u"Launch");
    EXPECT_EQ(projects.first().createdAt.toString(Qt::ISODateWithMs), created);
    EXPECT_EQ(runTask(m_projects.projectFiles(projects.first().id)),
              (QList<ProjectFile>{{u"plan.md"_s, u"Ship on Monday."_s}, {u"notes.txt"_s, u"n"_s}}));
    const auto agents = runTask(m_agents.list());
    ASSERT_EQ(agents.size(), 1);
    EXPECT_EQ(agents.first().model, u"a-model-long-gone");
    EXPECT_EQ(agents.first().temperature, u"0.4");
    const auto snapshot = runTask(m_tasks.load());
    ASSERT_EQ(snapshot.schedules.tasks.size(), 1);
    EXPECT_EQ(snapshot.schedules.tasks.first().name, u"Morning news");
    EXPECT_EQ(snapshot.runs.size(), 1);

    // Importing the same data again, say from a copy, adds nothing and keeps later edits.
    Project renamed = projects.first();
    renamed.name = u"Launch (edited)"_s;
    runTask(m_projects.update(renamed));
    putAll();
    import();
    const auto again = runTask(m_projects.list());
    ASSERT_EQ(again.size(), 1);
    EXPECT_EQ(again.first().name, u"Launch (edited)");
    EXPECT_EQ(runTask(m_agents.list()).size(), 1);
    EXPECT_EQ(runTask(m_tasks.load()).schedules.tasks.size(), 1);
}

TEST_F(LegacyImportTest, OneBadFileImportsNothingKeepsTheFilesAndIsNamed) {
    QJsonArray longName = legacyProjects();
    QJsonObject project = longName.first().toObject();
    project.insert(u"name"_s, QString(201, u'n'));
    longName.replace(0, project);

    QJsonArray binaryFile = legacyProjects();
    project = binaryFile.first().toObject();
    project.insert(u"files"_s,
                   QJsonArray{QJsonObject{{u"name"_s, u"a.bin"_s}, {u"text"_s, u"a\u0000b"_s}}});
    binaryFile.replace(0, project);

    QJsonArray hotAgent = legacyAgents();
    QJsonObject agent = hotAgent.first().toObject();
    agent.insert(u"temperature"_s, u"7"_s);
    hotAgent.replace(0, agent);

    QJsonArray twice = legacyProjects();
    twice.append(legacyProjects().first());

    QJsonObject badCron = legacyTasks();
    QJsonObject task = badCron.value(u"tasks"_s).toArray().first().toObject();
    task.insert(u"cron"_s, u"61 * * * *"_s);
    badCron.insert(u"tasks"_s, QJsonArray{task});

    const struct {
        QString file;
        QByteArray bytes;
        QString reason;
    } cases[] = {
        {u"projects.json"_s, QJsonDocument(longName).toJson(),
         u"is not valid: Keep the name under 201 characters."_s},
        {u"projects.json"_s, QJsonDocument(binaryFile).toJson(),
         u"is not valid: Import only UTF-8 text files without NUL bytes."_s},
        {u"projects.json"_s, QJsonDocument(twice).toJson(), u"lists one project twice."_s},
        {u"agents.json"_s, QJsonDocument(hotAgent).toJson(),
         u"is not valid: Enter a temperature from 0 to 2."_s},
        {u"agents.json"_s, QJsonDocument(legacyTasks()).toJson(),
         u"does not hold the expected records."_s},
        {u"scheduled-tasks.json"_s, QJsonDocument(badCron).toJson(), QString()},
        {u"task-runs.json"_s, "[{\"id\": ", u"is not valid JSON."_s},
        {u"task-runs.json"_s, "[\"\xff\xfe\"]", u"is not valid JSON."_s},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.file.toStdString() + " " + bad.reason.toStdString());
        putAll();
        put(bad.file, bad.bytes);
        try {
            import();
            ADD_FAILURE() << "imported";
        } catch (const LegacyImport::FileError& error) {
            EXPECT_EQ(error.fileName(), bad.file);
            EXPECT_TRUE(
                error.description().startsWith(u"Nothing was imported: \""_s + bad.file + u"\" "_s))
                << error.description().toStdString();
            if (!bad.reason.isEmpty()) {
                EXPECT_TRUE(error.description().endsWith(bad.reason))
                    << error.description().toStdString();
            }
        }
        EXPECT_FALSE(m_storage.hasSealedRecords());
        EXPECT_EQ(plaintextLeft(), (QStringList{u"agents.json"_s, u"projects.json"_s,
                                                u"scheduled-tasks.json"_s, u"task-runs.json"_s}));
    }
    // The stores still wait for a good import.
    EXPECT_THROW(runTask(m_agents.list()), LocalPrivacyError);
}

TEST_F(LegacyImportTest, AFolderWithoutLegacyFilesIsRefusedAndAnyOneFileIsEnough) {
    EXPECT_THROW(import(), Error);
    EXPECT_FALSE(m_storage.hasSealedRecords());

    put(u"agents.json"_s, QJsonDocument(legacyAgents()));
    const auto summary = import();
    EXPECT_EQ(summary.imported.presentFiles, QStringList{u"agents.json"_s});
    EXPECT_EQ(runTask(m_agents.list()).size(), 1);
    EXPECT_TRUE(runTask(m_projects.list()).isEmpty());
    EXPECT_TRUE(plaintextLeft().isEmpty());
}
