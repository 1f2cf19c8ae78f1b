#pragma once

#include "storage/local_store_queue.h"
#include "storage/project.h"
#include "storage/project_file.h"

#include <QCoroTask>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QString>
#include <QUuid>
#include <functional>
#include <optional>

namespace kestrolan {

// The projects of one account, sealed on disk: the list in one record ("projects") and each
// project's files in a record of their own ("project-files-<id>"), so that importing a large
// file rewrites only its project's files. Without storage it keeps everything in memory.
//
// Every operation runs on the store's serial queue under the account's storage lock, reads the
// records afresh (another process may have changed them) and writes whole records. Operations
// throw LocalPrivacyError; while plaintext files of the older layout wait to be imported into
// an account without sealed data, legacyImportRequired. Edits throw EditorValidationError
// before anything is written.
class ProjectStore {
public:
    static constexpr auto queueLabel = QLatin1StringView("org.kestrolan.mac.projects");
    static constexpr auto listRecord = QLatin1StringView("projects");
    static QString filesRecord(const QUuid& projectID);

    // `now` stamps created and updated dates; nothing means the system clock.
    explicit ProjectStore(std::optional<EncryptedLocalStorage> storage,
                          std::function<QDateTime()> now = {});

    QCoro::Task<QList<Project>> list();
    // The project's files in the order they were added; none for an unknown project.
    QCoro::Task<QList<ProjectFile>> projectFiles(QUuid projectID);

    // Adds a project made from `draft`'s name (trimmed) and instructions, with a fresh id and
    // the current date, and returns it.
    QCoro::Task<Project> create(Project draft);
    // Replaces the name and instructions of the project with `edited`'s id and dates the change;
    // nothing when there is no such project.
    QCoro::Task<std::optional<Project>> update(Project edited);
    // False when there is no such project.
    QCoro::Task<bool> remove(QUuid projectID);

    // Adds the file, replacing one of the same name; false when there is no such project.
    QCoro::Task<bool> addFile(QUuid projectID, ProjectFile file);
    // False when the project or the file is not there.
    QCoro::Task<bool> removeFile(QUuid projectID, QString name);

    // Adds the projects (with their files) whose ids are not present yet, without the legacy
    // check: this is how the older layout's data comes in. Validate them first.
    QCoro::Task<void> importLegacy(QList<Project> projects, QHash<QUuid, QList<ProjectFile>> files);

    // Removes the account's whole local data (every store's records and the key) under this
    // store's queue and lock; in memory, forgets the projects.
    QCoro::Task<void> forgetLocalData();

    // Refuses new work (LocalPrivacyError unavailable) and waits for the work under way.
    QCoro::Task<void> close();
    bool isClosed() const;

private:
    QList<Project> loadProjects(const EncryptedLocalStorage* storage) const;
    void saveProjects(const EncryptedLocalStorage* storage, const QList<Project>& projects);
    QList<ProjectFile> loadFiles(const EncryptedLocalStorage* storage, const QUuid& id) const;
    void saveFiles(const EncryptedLocalStorage* storage, const QUuid& id,
                   const QList<ProjectFile>& files);
    void removeFiles(const EncryptedLocalStorage* storage, const QUuid& id);

    std::function<QDateTime()> m_now;
    // In-memory mode only; touched by jobs on the queue alone.
    QList<Project> m_transient;
    QHash<QUuid, QList<ProjectFile>> m_transientFiles;
    LocalStoreQueue m_queue;
};

} // namespace kestrolan
