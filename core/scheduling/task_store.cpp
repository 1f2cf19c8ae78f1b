#include "scheduling/task_store.h"

#include "scheduling/cron_error.h"
#include "storage/legacy_import.h"
#include "support/json_reader.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>

namespace kestrolan {
namespace {

[[noreturn]] void refuse(LocalPrivacyError::Kind kind) {
    throw LocalPrivacyError(kind);
}

// Decoding failures of a record become `kind` (corrupt for sealed records).
StoredTasks decodeTasks(const QJsonDocument& document, LocalPrivacyError::Kind kind) {
    if (!document.isObject())
        refuse(kind);
    try {
        return StoredTasks::fromJson(document.object());
    } catch (const JsonReader::FieldError&) {
        refuse(kind);
    } catch (const CronError&) {
        refuse(kind);
    }
}

QList<TaskRun> decodeRuns(const QJsonDocument& document, LocalPrivacyError::Kind kind) {
    if (!document.isArray())
        refuse(kind);
    QList<TaskRun> runs;
    try {
        for (const auto& value : document.array()) {
            if (!value.isObject())
                refuse(kind);
            runs.append(TaskRun::fromJson(value.toObject()));
        }
    } catch (const JsonReader::FieldError&) {
        refuse(kind);
    }
    return runs;
}

QJsonDocument encodeRuns(const QList<TaskRun>& runs) {
    QJsonArray array;
    for (const auto& run : runs)
        array.append(run.toJson());
    return QJsonDocument(array);
}

// A legacy plaintext file: nothing when missing, its JSON otherwise. Unreadable or oversized
// files refuse the import.
std::optional<QJsonDocument> readLegacyFile(const QString& path) {
    QFile file(path);
    if (!file.exists())
        return std::nullopt;
    if (!file.open(QIODevice::ReadOnly) || file.size() > EncryptedLocalStorage::maximumRecordBytes)
        refuse(LocalPrivacyError::Kind::invalidRecord);
    QJsonParseError error;
    const auto document =
        QJsonDocument::fromJson(file.read(EncryptedLocalStorage::maximumRecordBytes + 1), &error);
    if (error.error != QJsonParseError::NoError)
        refuse(LocalPrivacyError::Kind::invalidRecord);
    return document;
}

} // namespace

TaskStore::TaskStore(std::optional<EncryptedLocalStorage> storage)
    : m_queue(queueLabel, std::move(storage)) {}

StoredTasks TaskStore::readTasks(const EncryptedLocalStorage& storage) {
    const auto document = storage.readDocument(tasksRecord);
    return document ? decodeTasks(*document, LocalPrivacyError::Kind::corrupt) : StoredTasks();
}

QList<TaskRun> TaskStore::readRuns(const EncryptedLocalStorage& storage) {
    const auto document = storage.readDocument(runsRecord);
    return document ? decodeRuns(*document, LocalPrivacyError::Kind::corrupt) : QList<TaskRun>();
}

void TaskStore::writeTasks(const EncryptedLocalStorage& storage, const StoredTasks& tasks) {
    storage.writeDocument(QJsonDocument(tasks.toJson()), tasksRecord);
}

void TaskStore::writeRuns(const EncryptedLocalStorage& storage, const QList<TaskRun>& runs) {
    storage.writeDocument(encodeRuns(runs), runsRecord);
}

QCoro::Task<TaskStoreSnapshot> TaskStore::load() {
    return m_queue.run([this](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        if (!storage) {
            // What a reload from disk would give: no previews.
            TaskStoreSnapshot snapshot = m_transient;
            for (auto& run : snapshot.runs)
                run.preview.reset();
            return snapshot;
        }
        return TaskStoreSnapshot{readTasks(*storage), readRuns(*storage)};
    });
}

QCoro::Task<void> TaskStore::saveTasks(StoredTasks tasks) {
    return m_queue.run([this, tasks = std::move(tasks)](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        if (storage)
            writeTasks(*storage, tasks);
        else
            m_transient.schedules = tasks;
    });
}

QCoro::Task<void> TaskStore::saveRuns(QList<TaskRun> runs) {
    return m_queue.run([this, runs = std::move(runs)](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        const QList<TaskRun> kept = TaskRun::trim(runs);
        if (storage)
            writeRuns(*storage, kept);
        else
            m_transient.runs = kept;
    });
}

QCoro::Task<bool> TaskStore::updateTasks(std::function<bool(StoredTasks&)> change) {
    return m_queue.run([this, change = std::move(change)](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        StoredTasks tasks = storage ? readTasks(*storage) : m_transient.schedules;
        const bool changed = change(tasks);
        if (!changed)
            return false;
        if (storage)
            writeTasks(*storage, tasks);
        else
            m_transient.schedules = tasks;
        return true;
    });
}

QCoro::Task<bool> TaskStore::updateRuns(std::function<bool(QList<TaskRun>&)> change) {
    return m_queue.run([this, change = std::move(change)](EncryptedLocalStorage* storage) {
        LegacyImport::refuseWhilePending(storage);
        QList<TaskRun> runs = storage ? readRuns(*storage) : m_transient.runs;
        const bool changed = change(runs);
        if (!changed)
            return false;
        runs = TaskRun::trim(runs);
        if (storage)
            writeRuns(*storage, runs);
        else
            m_transient.runs = runs;
        return true;
    });
}

QCoro::Task<void> TaskStore::importLegacy(QString folder) {
    return m_queue.run([this, folder = std::move(folder)](EncryptedLocalStorage* storage) {
        const QDir dir(folder);
        // Both files are read and checked before anything is written.
        const auto tasksDocument = readLegacyFile(dir.filePath(legacyTasksFile));
        const auto runsDocument = readLegacyFile(dir.filePath(legacyRunsFile));
        const auto invalid = LocalPrivacyError::Kind::invalidRecord;
        const std::optional<StoredTasks> imported =
            tasksDocument ? std::optional(decodeTasks(*tasksDocument, invalid)) : std::nullopt;
        const std::optional<QList<TaskRun>> importedRuns =
            runsDocument ? std::optional(decodeRuns(*runsDocument, invalid)) : std::nullopt;

        if (imported) {
            StoredTasks tasks = storage ? readTasks(*storage) : m_transient.schedules;
            for (const auto& task : imported->tasks) {
                if (tasks.task(task.id))
                    continue;
                tasks.tasks.append(task);
                if (const auto last = imported->lastScheduledFire.find(task.id);
                    last != imported->lastScheduledFire.end())
                    tasks.lastScheduledFire[task.id] = last->second;
            }
            if (storage)
                writeTasks(*storage, tasks);
            else
                m_transient.schedules = tasks;
        }
        if (importedRuns) {
            QList<TaskRun> runs = storage ? readRuns(*storage) : m_transient.runs;
            QSet<QUuid> known;
            for (const auto& run : runs)
                known.insert(run.id);
            for (const auto& run : *importedRuns) {
                if (!known.contains(run.id))
                    runs.append(run);
            }
            runs = TaskRun::trim(runs);
            if (storage)
                writeRuns(*storage, runs);
            else
                m_transient.runs = runs;
        }
    });
}

QCoro::Task<void> TaskStore::close() {
    return m_queue.close();
}

QCoro::Task<void> TaskStore::forgetLocalData() {
    co_await m_queue.run([this](EncryptedLocalStorage* storage) {
        if (storage) {
            storage->remove(tasksRecord);
            storage->remove(runsRecord);
        } else {
            m_transient = {};
        }
    });
    co_await m_queue.close();
}

} // namespace kestrolan
