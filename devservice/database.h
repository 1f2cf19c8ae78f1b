#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariant>
#include <condition_variable>
#include <deque>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace kestrolan::devservice {

class DatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The service's SQLite file. A Qt Sql connection belongs to the thread that opened it, and the
// HTTP server answers on a pool of threads, so one thread of ours owns the only connection and
// runs every unit of work there, one at a time, each inside its own transaction: a crash or a
// signal between two statements never leaves half of a change behind.
class Database {
public:
    // Opens (creating when needed) and migrates the file; throws DatabaseError.
    explicit Database(const QString& filePath);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs `work(connection)` in one transaction on the database thread and waits for it. An
    // exception thrown by `work` rolls the transaction back and reaches the caller.
    template <typename Work>
    auto transaction(Work work) -> std::invoke_result_t<Work&, QSqlDatabase&> {
        using Result = std::invoke_result_t<Work&, QSqlDatabase&>;
        if constexpr (std::is_void_v<Result>) {
            run([&](QSqlDatabase& connection) { work(connection); });
        } else {
            std::optional<Result> result;
            run([&](QSqlDatabase& connection) { result.emplace(work(connection)); });
            return std::move(*result);
        }
    }

    // Helpers for work functions: prepare, bind in order, execute; throw DatabaseError on
    // failure.
    static QSqlQuery execute(QSqlDatabase& connection, const QString& sql,
                             std::initializer_list<QVariant> values = {});

private:
    void run(const std::function<void(QSqlDatabase&)>& work);
    void serve(const QString& filePath, std::function<void(std::exception_ptr)> started);
    static void migrate(QSqlDatabase& connection);

    QString m_connectionName;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void(QSqlDatabase&)>> m_jobs;
    bool m_stop = false;
    std::thread m_thread;
};

} // namespace kestrolan::devservice
