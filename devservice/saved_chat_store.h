#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <optional>

namespace kestrolan::devservice {

class Database;

// Conversations saved to an account: the document exactly as the client sent it.
class SavedChatStore {
public:
    struct Summary {
        QString id;
        QString title;
        qint64 updatedAtMs = 0;
        QJsonObject toJson() const;
    };

    explicit SavedChatStore(Database& database);

    QList<Summary> list(const QString& accountId); // most recently updated first
    std::optional<QByteArray> load(const QString& accountId, const QString& id);
    Summary save(const QString& accountId, const QString& id, const QString& title,
                 const QByteArray& document);
    bool remove(const QString& accountId, const QString& id);

private:
    Database& m_database;
};

} // namespace kestrolan::devservice
