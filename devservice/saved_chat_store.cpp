#include "saved_chat_store.h"

#include "database.h"

#include <QDateTime>

namespace kestrolan::devservice {

QJsonObject SavedChatStore::Summary::toJson() const {
    // Whole seconds, "Z": the plainest ISO 8601 form every date parser reads.
    return QJsonObject{
        {QStringLiteral("id"), id},
        {QStringLiteral("title"), title},
        {QStringLiteral("updated_at"),
         QDateTime::fromSecsSinceEpoch(updatedAtMs / 1000, Qt::UTC).toString(Qt::ISODate)},
    };
}

SavedChatStore::SavedChatStore(Database& database)
    : m_database(database) {}

QList<SavedChatStore::Summary> SavedChatStore::list(const QString& accountId) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        auto query = Database::execute(connection,
                                       QStringLiteral("SELECT id, title, updated_at FROM chats "
                                                      "WHERE account_id = ? ORDER BY updated_at "
                                                      "DESC, id"),
                                       {accountId});
        QList<Summary> summaries;
        while (query.next())
            summaries.append(Summary{query.value(0).toString(), query.value(1).toString(),
                                     query.value(2).toLongLong()});
        return summaries;
    });
}

std::optional<QByteArray> SavedChatStore::load(const QString& accountId, const QString& id) {
    return m_database.transaction([&](QSqlDatabase& connection) -> std::optional<QByteArray> {
        auto query = Database::execute(
            connection, QStringLiteral("SELECT body FROM chats WHERE account_id = ? AND id = ?"),
            {accountId, id});
        if (!query.next())
            return std::nullopt;
        return query.value(0).toByteArray();
    });
}

SavedChatStore::Summary SavedChatStore::save(const QString& accountId, const QString& id,
                                             const QString& title, const QByteArray& document) {
    const auto now = QDateTime::currentMSecsSinceEpoch();
    m_database.transaction([&](QSqlDatabase& connection) {
        Database::execute(connection,
                          QStringLiteral("INSERT INTO chats (account_id, id, title, body, "
                                         "updated_at) VALUES (?, ?, ?, ?, ?) ON CONFLICT "
                                         "(account_id, id) DO UPDATE SET title = excluded.title, "
                                         "body = excluded.body, updated_at = excluded.updated_at"),
                          {accountId, id, title, document, now});
    });
    return Summary{id, title, now};
}

bool SavedChatStore::remove(const QString& accountId, const QString& id) {
    return m_database.transaction([&](QSqlDatabase& connection) {
        return Database::execute(
                   connection, QStringLiteral("DELETE FROM chats WHERE account_id = ? AND id = ?"),
                   {accountId, id})
                   .numRowsAffected() == 1;
    });
}

} // namespace kestrolan::devservice
