#include "database.h"

#include <QSqlError>
#include <QUuid>
#include <future>

namespace kestrolan::devservice {

namespace {

// Version 1 of the schema. Amounts are millionths of a dollar; times are milliseconds since
// the epoch, UTC.
constexpr const char* schema[] = {
    "CREATE TABLE accounts ("
    " id TEXT PRIMARY KEY,"
    " email TEXT NOT NULL UNIQUE,"
    " balance INTEGER NOT NULL CHECK (balance >= 0),"
    " held INTEGER NOT NULL DEFAULT 0 CHECK (held >= 0),"
    " zero_retention INTEGER NOT NULL DEFAULT 0,"
    " created_at INTEGER NOT NULL)",
    "CREATE TABLE holds ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " account_id TEXT NOT NULL REFERENCES accounts(id),"
    " amount INTEGER NOT NULL CHECK (amount >= 0),"
    " purpose TEXT NOT NULL,"
    " state TEXT NOT NULL CHECK (state IN ('open', 'settled', 'released')),"
    " charged INTEGER,"
    " created_at INTEGER NOT NULL,"
    " closed_at INTEGER)",
    "CREATE TABLE ledger ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " account_id TEXT NOT NULL REFERENCES accounts(id),"
    " kind TEXT NOT NULL CHECK (kind IN ('credit', 'charge', 'adjustment')),"
    " amount INTEGER NOT NULL,"
    " balance_after INTEGER NOT NULL,"
    " hold_id INTEGER REFERENCES holds(id),"
    " model TEXT,"
    " prompt_tokens INTEGER,"
    " completion_tokens INTEGER,"
    " description TEXT NOT NULL,"
    " created_at INTEGER NOT NULL)",
    "CREATE TABLE tokens ("
    " hash TEXT PRIMARY KEY,"
    " account_id TEXT NOT NULL REFERENCES accounts(id),"
    " device_name TEXT NOT NULL,"
    " created_at INTEGER NOT NULL,"
    " expires_at INTEGER NOT NULL,"
    " revoked_at INTEGER)",
    "CREATE TABLE chats ("
    " account_id TEXT NOT NULL REFERENCES accounts(id),"
    " id TEXT NOT NULL,"
    " title TEXT NOT NULL,"
    " body BLOB NOT NULL,"
    " updated_at INTEGER NOT NULL,"
    " PRIMARY KEY (account_id, id))",
    "CREATE TABLE bug_reports ("
    " id TEXT PRIMARY KEY,"
    " account_id TEXT NOT NULL REFERENCES accounts(id),"
    " body BLOB NOT NULL,"
    " received_at INTEGER NOT NULL)",
    "PRAGMA user_version = 1",
};

[[noreturn]] void fail(const QString& what, const QSqlError& error) {
    throw DatabaseError(QString(what + QStringLiteral(": ") + error.text()).toStdString());
}

} // namespace

Database::Database(const QString& filePath)
    : m_connectionName(QStringLiteral("kestrolan-devservice-") +
                       QUuid::createUuid().toString(QUuid::WithoutBraces)) {
    std::promise<void> ready;
    auto started = ready.get_future();
    m_thread = std::thread([this, filePath, &ready] {
        serve(filePath, [&ready](std::exception_ptr error) {
            if (error)
                ready.set_exception(error);
            else
                ready.set_value();
        });
    });
    try {
        started.get();
    } catch (...) {
        m_thread.join();
        throw;
    }
}

Database::~Database() {
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

QSqlQuery Database::execute(QSqlDatabase& connection, const QString& sql,
                            std::initializer_list<QVariant> values) {
    QSqlQuery query(connection);
    if (!query.prepare(sql))
        fail(QStringLiteral("Preparing \"") + sql + u'"', query.lastError());
    for (const auto& value : values)
        query.addBindValue(value);
    if (!query.exec())
        fail(QStringLiteral("Running \"") + sql + u'"', query.lastError());
    return query;
}

void Database::run(const std::function<void(QSqlDatabase&)>& work) {
    std::promise<void> done;
    auto finished = done.get_future();
    {
        std::lock_guard lock(m_mutex);
        if (m_stop)
            throw DatabaseError("The database is closed.");
        m_jobs.push_back([&work, &done](QSqlDatabase& connection) {
            try {
                if (!connection.transaction())
                    fail(QStringLiteral("Beginning a transaction"), connection.lastError());
                try {
                    work(connection);
                } catch (...) {
                    connection.rollback();
                    throw;
                }
                if (!connection.commit()) {
                    const auto error = connection.lastError();
                    connection.rollback();
                    fail(QStringLiteral("Committing"), error);
                }
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    m_wake.notify_all();
    finished.get();
}

void Database::serve(const QString& filePath, std::function<void(std::exception_ptr)> started) {
    {
        auto connection = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connectionName);
        try {
            connection.setDatabaseName(filePath);
            if (!connection.open())
                fail(QStringLiteral("Opening ") + filePath, connection.lastError());
            // Full synchronisation with a write-ahead log: a committed change survives a crash
            // or a power cut, and an interrupted one is rolled back on the next open.
            execute(connection, QStringLiteral("PRAGMA journal_mode = WAL"));
            execute(connection, QStringLiteral("PRAGMA synchronous = FULL"));
            execute(connection, QStringLiteral("PRAGMA foreign_keys = ON"));
            execute(connection, QStringLiteral("PRAGMA busy_timeout = 5000"));
            migrate(connection);
            started(nullptr);
        } catch (...) {
            connection.close();
            connection = QSqlDatabase();
            QSqlDatabase::removeDatabase(m_connectionName);
            started(std::current_exception());
            return;
        }

        for (;;) {
            std::function<void(QSqlDatabase&)> job;
            {
                std::unique_lock lock(m_mutex);
                m_wake.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
                if (m_jobs.empty())
                    break;
                job = std::move(m_jobs.front());
                m_jobs.pop_front();
            }
            job(connection);
        }
        connection.close();
    }
    QSqlDatabase::removeDatabase(m_connectionName);
}

void Database::migrate(QSqlDatabase& connection) {
    auto version = execute(connection, QStringLiteral("PRAGMA user_version"));
    const int current = version.next() ? version.value(0).toInt() : 0;
    version.finish();
    if (current == 1)
        return;
    if (current != 0)
        throw DatabaseError("The data directory was written by a newer kestrolan-devservice.");
    if (!connection.transaction())
        fail(QStringLiteral("Beginning the schema transaction"), connection.lastError());
    try {
        for (const auto* statement : schema)
            execute(connection, QString::fromLatin1(statement));
    } catch (...) {
        connection.rollback();
        throw;
    }
    if (!connection.commit())
        fail(QStringLiteral("Committing the schema"), connection.lastError());
}

} // namespace kestrolan::devservice
