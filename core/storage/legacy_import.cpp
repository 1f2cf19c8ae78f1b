#include "storage/legacy_import.h"

#include "scheduling/cron_error.h"
#include "scheduling/stored_tasks.h"
#include "scheduling/task_run.h"
#include "scheduling/task_store.h"
#include "storage/agent_store.h"
#include "storage/editor_validation_error.h"
#include "storage/encrypted_local_storage.h"
#include "storage/json_record_list.h"
#include "storage/local_privacy_error.h"
#include "storage/project_store.h"

#include <QCoroFuture>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSet>
#include <QtConcurrent>
#include <exception>
#include <variant>

namespace kestrolan {
namespace {

using FileError = LegacyImport::FileError;

QJsonDocument readDocument(const QDir& folder, const QString& name) {
    QFile file(folder.filePath(name));
    if (!file.open(QIODevice::ReadOnly))
        throw FileError(name, QStringLiteral("could not be read."));
    const QByteArray bytes = file.read(EncryptedLocalStorage::maximumRecordBytes + 1);
    if (bytes.size() > EncryptedLocalStorage::maximumRecordBytes)
        throw FileError(name, QStringLiteral("is larger than 50 MiB."));
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        throw FileError(name, QStringLiteral("is not valid JSON."));
    return document;
}

FileError wrongForm(const QString& name) {
    return FileError(name, QStringLiteral("does not hold the expected records."));
}

// A project of the older layout carried its files inline.
void readProjects(const QJsonDocument& document, LegacyImport::Contents& contents) {
    const QString name = LegacyImport::projectsFile;
    if (!document.isArray())
        throw wrongForm(name);
    QSet<QUuid> ids;
    for (const auto& element : document.array()) {
        if (!element.isObject())
            throw wrongForm(name);
        QJsonObject object = element.toObject();
        const QJsonValue filesValue = object.take(QStringLiteral("files"));
        Project project;
        QList<ProjectFile> files;
        try {
            project = Project::fromJson(object);
            if (!filesValue.isUndefined() && !filesValue.isNull()) {
                if (!filesValue.isArray())
                    throw wrongForm(name);
                files = listFromJson<ProjectFile>(QJsonDocument(filesValue.toArray()));
            }
        } catch (const JsonReader::FieldError&) {
            throw wrongForm(name);
        }
        project.name = project.name.trimmed();
        project.validate();
        Project::validateFiles(files);
        QSet<QString> fileNames;
        for (const auto& file : files) {
            if (fileNames.contains(file.name))
                throw FileError(name, u"names the file \"" + file.name + u"\" twice in a project.");
            fileNames.insert(file.name);
        }
        if (ids.contains(project.id))
            throw FileError(name, QStringLiteral("lists one project twice."));
        ids.insert(project.id);
        contents.projects.append(project);
        if (!files.isEmpty())
            contents.files.insert(project.id, files);
    }
}

void readAgents(const QJsonDocument& document, LegacyImport::Contents& contents) {
    const QString name = LegacyImport::agentsFile;
    QList<Agent> agents;
    try {
        agents = listFromJson<Agent>(document);
    } catch (const JsonReader::FieldError&) {
        throw wrongForm(name);
    }
    QSet<QUuid> ids;
    for (auto& agent : agents) {
        // The model may have left the catalog since; the agent is kept and shows that later.
        agent.validateExceptModel();
        agent.name = agent.name.trimmed();
        agent.temperature = agent.temperature.trimmed();
        if (ids.contains(agent.id))
            throw FileError(name, QStringLiteral("lists one agent twice."));
        ids.insert(agent.id);
    }
    contents.agents = agents;
}

void readTasks(const QJsonDocument& document, LegacyImport::Contents& contents) {
    const QString name = TaskStore::legacyTasksFile;
    if (!document.isObject())
        throw wrongForm(name);
    try {
        contents.tasks = StoredTasks::fromJson(document.object()).tasks.size();
    } catch (const JsonReader::FieldError&) {
        throw wrongForm(name);
    } catch (const CronError& error) {
        throw FileError(name, u"is not valid: " + error.description());
    }
}

void readRuns(const QJsonDocument& document, LegacyImport::Contents& contents) {
    try {
        contents.runs = listFromJson<TaskRun>(document).size();
    } catch (const JsonReader::FieldError&) {
        throw wrongForm(TaskStore::legacyRunsFile);
    }
}

using ReadOutcome = std::variant<LegacyImport::Contents, std::exception_ptr>;

ReadOutcome readCaught(const QString& folder) {
    try {
        return LegacyImport::read(folder);
    } catch (...) {
        return std::current_exception();
    }
}

QStringList removeFiles(const QString& folder, const QStringList& names) {
    QStringList kept;
    for (const auto& name : names) {
        if (!QFile::remove(QDir(folder).filePath(name)))
            kept.append(name);
    }
    return kept;
}

} // namespace

LegacyImport::FileError::FileError(QString fileName, const QString& reason)
    : Error(u"Nothing was imported: \"" + fileName + u"\" " + reason)
    , m_fileName(std::move(fileName)) {}

QStringList LegacyImport::fileNames() {
    return {projectsFile, agentsFile, TaskStore::legacyTasksFile, TaskStore::legacyRunsFile};
}

QString LegacyImport::dataFolder(const EncryptedLocalStorage& storage) {
    return QFileInfo(QDir::cleanPath(storage.root())).absolutePath();
}

void LegacyImport::refuseWhilePending(const EncryptedLocalStorage* storage) {
    if (!storage)
        return;
    const QDir folder(dataFolder(*storage));
    const auto names = fileNames();
    const bool present = std::any_of(names.begin(), names.end(), [&](const QString& name) {
        return QFileInfo::exists(folder.filePath(name));
    });
    if (present && !storage->hasSealedRecords())
        throw LocalPrivacyError(LocalPrivacyError::Kind::legacyImportRequired);
}

LegacyImport::Contents LegacyImport::read(const QString& folder) {
    const QDir dir(folder);
    Contents contents;
    using Reader = void (*)(const QJsonDocument&, Contents&);
    const std::pair<QString, Reader> readers[] = {
        {projectsFile, readProjects},
        {agentsFile, readAgents},
        {TaskStore::legacyTasksFile, readTasks},
        {TaskStore::legacyRunsFile, readRuns},
    };
    for (const auto& [name, reader] : readers) {
        if (!QFileInfo::exists(dir.filePath(name)))
            continue;
        contents.presentFiles.append(name);
        try {
            reader(readDocument(dir, name), contents);
        } catch (const EditorValidationError& error) {
            throw FileError(name, u"is not valid: " + error.message());
        }
    }
    if (contents.presentFiles.isEmpty())
        throw Error(u"Nothing was imported: \"" + QDir::toNativeSeparators(folder) +
                    u"\" holds none of " + fileNames().join(u", ") + u'.');
    return contents;
}

QCoro::Task<LegacyImport::Summary> LegacyImport::run(QString folder, ProjectStore* projects,
                                                     AgentStore* agents, TaskStore* tasks) {
    ReadOutcome outcome = co_await QtConcurrent::run(readCaught, folder);
    if (auto* failure = std::get_if<std::exception_ptr>(&outcome))
        std::rethrow_exception(*failure);
    Summary summary;
    summary.imported = std::get<Contents>(std::move(outcome));
    const Contents& contents = summary.imported;

    // Tasks first: their store reads the files again and refuses anything it cannot take
    // before it writes, so a refusal there still leaves nothing imported.
    if (contents.presentFiles.contains(TaskStore::legacyTasksFile) ||
        contents.presentFiles.contains(TaskStore::legacyRunsFile))
        co_await tasks->importLegacy(folder);
    if (!contents.projects.isEmpty())
        co_await projects->importLegacy(contents.projects, contents.files);
    if (!contents.agents.isEmpty())
        co_await agents->importLegacy(contents.agents);

    summary.notRemoved = co_await QtConcurrent::run(removeFiles, folder, contents.presentFiles);
    co_return summary;
}

} // namespace kestrolan
