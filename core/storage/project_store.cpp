#include "storage/project_store.h"

#include "storage/editor_validation_error.h"
#include "storage/json_record_list.h"
#include "storage/legacy_import.h"
#include "storage/local_privacy_error.h"
#include "support/uuid_text.h"

#include <QJsonDocument>
#include <algorithm>

namespace kestrolan {
namespace {

qsizetype indexOf(const QList<Project>& projects, const QUuid& id) {
    const auto found = std::find_if(projects.begin(), projects.end(),
                                    [&](const Project& project) { return project.id == id; });
    return found == projects.end() ? -1 : found - projects.begin();
}

} // namespace

QString ProjectStore::filesRecord(const QUuid& projectID) {
    return u"project-files-" + uuidText(projectID);
}

ProjectStore::ProjectStore(std::optional<EncryptedLocalStorage> storage,
                           std::function<QDateTime()> now)
    : m_now(now ? std::move(now) : [] { return QDateTime::currentDateTimeUtc(); })
    , m_queue(queueLabel, std::move(storage)) {}

QList<Project> ProjectStore::loadProjects(const EncryptedLocalStorage* storage) const {
    if (!storage)
        return m_transient;
    return listFromRecord<Project>(storage->readDocument(listRecord));
}

void ProjectStore::saveProjects(const EncryptedLocalStorage* storage,
                                const QList<Project>& projects) {
    if (storage)
        storage->writeDocument(listToJson(projects), listRecord);
    else
        m_transient = projects;
}

QList<ProjectFile> ProjectStore::loadFiles(const EncryptedLocalStorage* storage,
                                           const QUuid& id) const {
    if (!storage)
        return m_transientFiles.value(id);
    return listFromRecord<ProjectFile>(storage->readDocument(filesRecord(id)));
}

void ProjectStore::saveFiles(const EncryptedLocalStorage* storage, const QUuid& id,
                             const QList<ProjectFile>& files) {
    if (storage)
        storage->writeDocument(listToJson(files), filesRecord(id));
    else
        m_transientFiles.insert(id, files);
}

void ProjectStore::removeFiles(const EncryptedLocalStorage* storage, const QUuid& id) {
    if (storage)
        storage->remove(filesRecord(id));
    else
        m_transientFiles.remove(id);
}

QCoro::Task<QList<Project>> ProjectStore::list() {
    return m_queue.run([this](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        return loadProjects(storage);
    });
}

QCoro::Task<QList<ProjectFile>> ProjectStore::projectFiles(QUuid projectID) {
    return m_queue.run([this, projectID](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        if (indexOf(loadProjects(storage), projectID) < 0)
            return QList<ProjectFile>();
        return loadFiles(storage, projectID);
    });
}

QCoro::Task<Project> ProjectStore::create(Project draft) {
    return m_queue.run([this, draft](EncryptedLocalStorage* storage) {
        draft.validate();
        LegacyImport::refuseWhilePending(storage);
        QList<Project> projects = loadProjects(storage);
        const QDateTime now = m_now();
        const Project project{QUuid::createUuid(), draft.name.trimmed(), draft.instructions, now,
                              now};
        projects.append(project);
        saveProjects(storage, projects);
        return project;
    });
}

QCoro::Task<std::optional<Project>> ProjectStore::update(Project edited) {
    return m_queue.run([this, edited](EncryptedLocalStorage* storage) -> std::optional<Project> {
        edited.validate();
        LegacyImport::refuseWhilePending(storage);
        QList<Project> projects = loadProjects(storage);
        const qsizetype index = indexOf(projects, edited.id);
        if (index < 0)
            return std::nullopt;
        Project& project = projects[index];
        project.name = edited.name.trimmed();
        project.instructions = edited.instructions;
        project.updatedAt = m_now();
        saveProjects(storage, projects);
        return project;
    });
}

QCoro::Task<bool> ProjectStore::remove(QUuid projectID) {
    return m_queue.run([this, projectID](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        QList<Project> projects = loadProjects(storage);
        const qsizetype index = indexOf(projects, projectID);
        if (index < 0)
            return false;
        // Files first: a failure in between leaves a project without files, never files that
        // no project owns and nothing could remove.
        removeFiles(storage, projectID);
        projects.removeAt(index);
        saveProjects(storage, projects);
        return true;
    });
}

QCoro::Task<bool> ProjectStore::addFile(QUuid projectID, ProjectFile file) {
    return m_queue.run([this, projectID, file](EncryptedLocalStorage* storage) {
        file.validate();
        LegacyImport::refuseWhilePending(storage);
        if (indexOf(loadProjects(storage), projectID) < 0)
            return false;
        QList<ProjectFile> files = loadFiles(storage, projectID);
        const auto same = std::find_if(files.begin(), files.end(), [&](const ProjectFile& kept) {
            return kept.name == file.name;
        });
        if (same != files.end())
            *same = file;
        else
            files.append(file);
        Project::checkFileCount(files.size());
        saveFiles(storage, projectID, files);
        return true;
    });
}

QCoro::Task<bool> ProjectStore::removeFile(QUuid projectID, QString name) {
    return m_queue.run([this, projectID, name](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        if (indexOf(loadProjects(storage), projectID) < 0)
            return false;
        QList<ProjectFile> files = loadFiles(storage, projectID);
        if (!files.removeIf([&](const ProjectFile& kept) { return kept.name == name; }))
            return false;
        saveFiles(storage, projectID, files);
        return true;
    });
}

QCoro::Task<void> ProjectStore::importLegacy(QList<Project> projects,
                                             QHash<QUuid, QList<ProjectFile>> files) {
    return m_queue.run([this, projects, files](EncryptedLocalStorage* storage) {
        QList<Project> kept = loadProjects(storage);
        QList<Project> added;
        for (const auto& project : projects) {
            if (indexOf(kept, project.id) < 0)
                added.append(project);
        }
        // Each project's files before the list that names it, so the list never points at
        // files that are not there yet.
        for (const auto& project : added) {
            const auto projectFiles = files.value(project.id);
            if (!projectFiles.isEmpty())
                saveFiles(storage, project.id, projectFiles);
        }
        if (!added.isEmpty())
            saveProjects(storage, kept + added);
    });
}

QCoro::Task<void> ProjectStore::forgetLocalData() {
    return m_queue.run([this](EncryptedLocalStorage* storage) {
        if (storage) {
            storage->forget();
        } else {
            m_transient.clear();
            m_transientFiles.clear();
        }
    });
}

QCoro::Task<void> ProjectStore::close() {
    return m_queue.close();
}

bool ProjectStore::isClosed() const {
    return m_queue.isClosed();
}

} // namespace kestrolan
