#pragma once

#include "error.h"
#include "storage/agent.h"
#include "storage/project.h"
#include "storage/project_file.h"

#include <QCoroTask>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>

namespace kestrolan {

class AgentStore;
class EncryptedLocalStorage;
class ProjectStore;
class TaskStore;

// The plaintext files of the older local layout ("projects.json", "agents.json",
// "scheduled-tasks.json", "task-runs.json"), each a JSON document with the keys of the record
// that replaces it; a project may carry its files inline under "files". They are never read on
// their own: while the app's data folder (the storage root's parent) holds any of them and the
// account has no sealed records, the stores refuse with legacyImportRequired until the user
// imports a folder explicitly.
class LegacyImport {
public:
    static constexpr auto projectsFile = QLatin1StringView("projects.json");
    static constexpr auto agentsFile = QLatin1StringView("agents.json");
    static QStringList fileNames();

    // A legacy file that cannot be imported: nothing was imported. The description names it.
    class FileError : public Error {
    public:
        FileError(QString fileName, const QString& reason);
        const QString& fileName() const { return m_fileName; }

    private:
        QString m_fileName;
    };

    // What one folder holds, read and checked whole.
    struct Contents {
        QStringList presentFiles;
        QList<Project> projects;
        QHash<QUuid, QList<ProjectFile>> files;
        QList<Agent> agents;
        qsizetype tasks = 0;
        qsizetype runs = 0;
    };

    struct Summary {
        Contents imported;
        // Plaintext files that stayed behind because they could not be removed.
        QStringList notRemoved;
    };

    // The folder whose legacy files make the stores wait for an import.
    static QString dataFolder(const EncryptedLocalStorage& storage);
    // Blocking, on a store's queue. Throws LocalPrivacyError(legacyImportRequired) when the
    // data folder holds a legacy file and the account has no sealed records; nothing without
    // storage.
    static void refuseWhilePending(const EncryptedLocalStorage* storage);

    // Blocking. Reads and checks every legacy file in `folder`; throws FileError for the first
    // bad one, or when the folder holds none.
    static Contents read(const QString& folder);

    // The explicit import: reads and checks everything first, then writes the tasks, projects
    // and agents sealed (merged with the account's data; ids already there win), and removes
    // the plaintext files only once every record is written.
    static QCoro::Task<Summary> run(QString folder, ProjectStore* projects, AgentStore* agents,
                                    TaskStore* tasks);
};

} // namespace kestrolan
