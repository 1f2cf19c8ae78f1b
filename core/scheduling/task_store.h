#pragma once

#include "scheduling/task_store_snapshot.h"
#include "storage/encrypted_local_storage.h"
#include "storage/local_store_queue.h"

#include <QCoroTask>
#include <QString>
#include <functional>
#include <optional>

namespace kestrolan {

// One account's task definitions and run history, sealed on disk in the records
// "scheduled-tasks" (StoredTasks) and "task-runs" (the runs). Every operation runs on the
// store's own serial queue under the account's storage lock and reads or writes whole records,
// so the app, the terminal and the headless scheduler can share one account directory.
// Without storage the store keeps its data in memory only. A closed store refuses work with
// LocalPrivacyError(unavailable); a record that does not decode is `corrupt`; while plaintext
// files of the older layout wait to be imported into an account without sealed data, every
// operation but importLegacy is refused with legacyImportRequired.
class TaskStore {
public:
    static constexpr auto queueLabel = QLatin1StringView("org.kestrolan.mac.scheduling-store");
    static constexpr auto tasksRecord = QLatin1StringView("scheduled-tasks");
    static constexpr auto runsRecord = QLatin1StringView("task-runs");
    // The plaintext files of the older local layout.
    static constexpr auto legacyTasksFile = QLatin1StringView("scheduled-tasks.json");
    static constexpr auto legacyRunsFile = QLatin1StringView("task-runs.json");

    explicit TaskStore(std::optional<EncryptedLocalStorage> storage);
    TaskStore(const TaskStore&) = delete;
    TaskStore& operator=(const TaskStore&) = delete;

    const std::optional<EncryptedLocalStorage>& storage() const { return m_queue.storage(); }

    // Both records; a missing one reads as empty.
    QCoro::Task<TaskStoreSnapshot> load();
    QCoro::Task<void> saveTasks(StoredTasks tasks);
    // Trims the history (TaskRun::trim) before writing it.
    QCoro::Task<void> saveRuns(QList<TaskRun> runs);

    // Reads the task document, lets `change` edit it and writes it back when `change` returns
    // true, all under one hold of the storage lock, so that no other process's change between
    // the read and the write is lost. Returns what `change` returned; an exception from it
    // writes nothing and reaches the caller.
    QCoro::Task<bool> updateTasks(std::function<bool(StoredTasks&)> change);
    // The same for the run history, which is trimmed before it is written.
    QCoro::Task<bool> updateRuns(std::function<bool(QList<TaskRun>&)> change);

    // Imports "scheduled-tasks.json" and "task-runs.json" of the older plaintext layout from
    // `folder` (either may be missing) and writes them sealed, merged with what the account
    // holds (existing ids win). A file that does not read as its record refuses the import
    // with LocalPrivacyError(invalidRecord) before anything is written.
    QCoro::Task<void> importLegacy(QString folder);

    // Refuses new work and waits for the work already queued.
    QCoro::Task<void> close();
    bool isClosed() const { return m_queue.isClosed(); }

    // Removes both records (in memory: the data) and closes the store.
    QCoro::Task<void> forgetLocalData();

private:
    static StoredTasks readTasks(const EncryptedLocalStorage& storage);
    static QList<TaskRun> readRuns(const EncryptedLocalStorage& storage);
    static void writeTasks(const EncryptedLocalStorage& storage, const StoredTasks& tasks);
    static void writeRuns(const EncryptedLocalStorage& storage, const QList<TaskRun>& runs);

    // Used only on the queue, in memory mode.
    TaskStoreSnapshot m_transient;
    LocalStoreQueue m_queue;
};

} // namespace kestrolan
