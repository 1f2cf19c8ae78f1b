#pragma once

#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "memory_token_store.h"
#include "platform/settings_defaults.h"
#include "service/api_client.h"
#include "service/configuration.h"
#include "test_http_server.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUuid>
#include <deque>
#include <mutex>

namespace kestrolan::test {

// A chat service on 127.0.0.1 for the widgets: a catalog, an account, saved chats that can be
// loaded, and /api/chat answered from a queue of event streams. The session is real.
class ChatService {
public:
    ChatService();
    ~ChatService();

    // Event-stream pieces of a reply.
    static QByteArray text(const QString& content);
    static QByteArray finish(const QString& reason);
    static QByteArray billing(const char* chargedUSD);
    static QByteArray answer(const QString& content, const char* chargedUSD = "0.000031");
    static QByteArray readCall(const QString& callID, const QString& path);
    static QByteArray done();

    void enqueue(TestResponse response);
    void enqueue(const QByteArray& eventStream);
    // Serves `document` under `id` for ChatSession::load.
    void store(const QUuid& id, const QJsonObject& document);

    TestHttpServer& server() { return m_server; }
    QString folder() const { return m_directory.filePath(QStringLiteral("work")); }

    std::mutex mutex;
    std::deque<TestResponse> streams;
    QHash<QString, QByteArray> saved;
    // The account's saved-chat list (GET /api/chats), newest first.
    QByteArray chatList = "[]";

private:
    TestResponse respond(const RecordedRequest& request);

    TestHttpServer m_server;
    QTemporaryDir m_directory;

public:
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
    SettingsDefaults defaults;
    CatalogStore catalog;
    ChatLoopSlots slots;
    QUuid accountID = QUuid::createUuid();
    ChatSession session;
};

// A saved conversation of `turns` turns, each reply about `replyBytes` long.
QJsonObject conversationDocument(int turns, int replyBytes);

} // namespace kestrolan::test
