#pragma once

#include "account/account_model.h"
#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "memory_token_store.h"
#include "platform/settings_defaults.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "service/api_client.h"
#include "test_http_server.h"
#include "workspace/workspace.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>

namespace kestrolan::test::chat {

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

inline const QString kModel = QStringLiteral("kestrolan/tools");
inline const QString kEchoModel = QStringLiteral("kestrolan/echo");
inline const QString kThirdModel = QStringLiteral("kestrolan/third");

inline QByteArray frame(const QJsonObject& object) {
    return "data: " + QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n\n";
}

inline QByteArray delta(const QJsonObject& delta) {
    return frame(
        {{QStringLiteral("choices"), QJsonArray{QJsonObject{{QStringLiteral("delta"), delta}}}}});
}

inline QByteArray text(const QString& content) {
    return delta({{QStringLiteral("content"), content}});
}

inline QByteArray finish(const QString& reason) {
    return frame({{QStringLiteral("choices"),
                   QJsonArray{QJsonObject{{QStringLiteral("delta"), QJsonObject()},
                                          {QStringLiteral("finish_reason"), reason}}}}});
}

// One call per argument object, in index order, all of tool `name`.
inline QByteArray calls(const QString& name, const QList<QJsonObject>& arguments,
                        const QString& idPrefix) {
    QJsonArray list;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        list.append(QJsonObject{
            {QStringLiteral("index"), int(i)},
            {QStringLiteral("id"), QString(idPrefix + QString::number(i))},
            {QStringLiteral("type"), QStringLiteral("function")},
            {QStringLiteral("function"),
             QJsonObject{{QStringLiteral("name"), name},
                         {QStringLiteral("arguments"),
                          QString::fromUtf8(
                              QJsonDocument(arguments[i]).toJson(QJsonDocument::Compact))}}}});
    }
    return delta({{QStringLiteral("tool_calls"), list}});
}

// One read_file call per path, in index order.
inline QByteArray readCalls(const QStringList& paths, const QString& idPrefix) {
    QList<QJsonObject> arguments;
    for (const auto& path : paths)
        arguments.append(QJsonObject{{QStringLiteral("path"), path}});
    return calls(QStringLiteral("read_file"), arguments, idPrefix);
}

inline QByteArray billing(const char* charged, const char* state = "settled") {
    return QByteArray("event: kestrolan.billing\ndata: {\"prompt_tokens\":10,\"completion_tokens\":"
                      "2,\"charged_usd\":\"") +
           charged + "\",\"state\":\"" + state + "\"}\n\n";
}

inline const QByteArray kDone = "data: [DONE]\n\n";

inline QByteArray answer(const QString& content, const char* charged) {
    return text(content) + finish(QStringLiteral("stop")) + billing(charged) + kDone;
}

inline QByteArray toolRound(const QString& content, const QStringList& paths,
                            const QString& idPrefix, const char* charged) {
    return text(content) + readCalls(paths, idPrefix) + finish(QStringLiteral("tool_calls")) +
           billing(charged) + kDone;
}

inline const QByteArray kCatalog =
    R"({"models":[{"id":"kestrolan/tools","display_name":"Tools","available":true,)"
    R"("description":"d","capabilities":{"tool_calling":true,"response_format":false},)"
    R"("context_tokens":200000,"max_output_tokens":8192,"default_output_tokens":1024},)"
    R"({"id":"kestrolan/echo","display_name":"Echo","available":true,"description":"e",)"
    R"("context_tokens":100000,"max_output_tokens":4096,"default_output_tokens":512},)"
    R"({"id":"kestrolan/third","display_name":"Third","available":true,"description":"t",)"
    R"("context_tokens":100000,"max_output_tokens":4096,"default_output_tokens":512},)"
    R"({"id":"kestrolan/retired","display_name":"Retired","available":false,"description":"r",)"
    R"("context_tokens":100000,"max_output_tokens":4096,"default_output_tokens":512}]})";

inline const QByteArray kAccount =
    R"({"id":"6f1c1a52-8b9e-4a57-9a53-3f0d8e0b7a11","zero_retention":{"enabled":false},)"
    R"("email":"ada@example.com","balance_usd":"10.00","held_usd":"0.00",)"
    R"("available_usd":"10.00"})";

// A session against an in-process service: the catalog, the account, saved chats (kept in
// memory by id), and /api/chat answered from a queue of event streams.
class ChatSessionTest : public ::testing::Test {
protected:
    ChatSessionTest() {
        client.session().setTimeouts({.transfer = 10s, .total = 60s});
        server.setHandler([this](const RecordedRequest& request) { return respond(request); });
    }

    void SetUp() override {
        ASSERT_TRUE(directory.isValid());
        runTask(catalog.refresh());
        ASSERT_TRUE(catalog.select(kModel));
        ASSERT_TRUE(QDir().mkdir(folder));
        QFile notes(folder + u"/notes.txt");
        ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
        notes.write("high tide at 06:12\n");
    }

    TestResponse respond(const RecordedRequest& request) {
        if (request.target == "/api/catalog")
            return TestResponse::json(200, kCatalog);
        if (request.target == "/api/account")
            return TestResponse::json(200, kAccount);
        if (request.target == "/api/web/search")
            return TestResponse::json(
                200,
                R"({"query":"tides","results":[{"title":"Tide tables","url":)"
                R"("https://example.com/t","snippet":"High water"}],"billing":{"state":)"
                R"("settled","charged_usd":"0.0050","prompt_tokens":0,"completion_tokens":0}})");
        std::lock_guard lock(mutex);
        if (request.target.startsWith("/api/chats/")) {
            const QByteArray id = request.target.mid(QByteArray("/api/chats/").size());
            if (request.method == "PUT") {
                storedChats.insert(id, request.body);
                return TestResponse::json(
                    200,
                    R"({"id":")" + id + R"(","title":"t","updated_at":"2025-01-01T00:00:00Z"})");
            }
            if (storedChats.contains(id))
                return TestResponse::json(200, storedChats.value(id));
            return TestResponse::json(404, R"({"error":{"message":"Chat not found."}})");
        }
        if (request.target == "/api/chat" && !streams.empty()) {
            TestResponse response = std::move(streams.front());
            streams.pop_front();
            return response;
        }
        return TestResponse::json(500, R"({"error":{"message":"unexpected request"}})");
    }

    void enqueue(TestResponse response) {
        std::lock_guard lock(mutex);
        streams.push_back(std::move(response));
    }
    void enqueue(const QByteArray& body) { enqueue(TestResponse::eventStream(body)); }

    QList<QJsonObject> chatBodies() const {
        QList<QJsonObject> bodies;
        for (const auto& request : server.requests()) {
            if (request.target == "/api/chat")
                bodies.append(QJsonDocument::fromJson(request.body).object());
        }
        return bodies;
    }

    qsizetype requestCount(const QByteArray& method, const QByteArray& targetPrefix) const {
        qsizetype count = 0;
        for (const auto& request : server.requests()) {
            if (request.method == method && request.target.startsWith(targetPrefix))
                ++count;
        }
        return count;
    }

    void grant(LocalAccessMode mode) {
        session.setAccountID(accountID);
        session.tools().selectAccess(
            mode, Workspace::open(QUrl::fromLocalFile(folder), false, ProtectedPaths()),
            configuration.origin(), accountID, session.id(), true, false);
    }

    const SavedConversation::Reply& lastReply() const {
        return session.conversation().turns.last().replies.first();
    }

    QUuid lastTurnID() const { return session.conversation().turns.last().id; }

    QStringList metaTexts(const SavedConversation::Reply& reply) const {
        QStringList texts;
        for (const auto& meta : reply.meta)
            texts.append(meta.text);
        return texts;
    }
    QStringList metaTexts() const { return metaTexts(lastReply()); }

    // Declared before the server, whose threads use them until it is gone.
    std::mutex mutex;
    std::deque<TestResponse> streams;
    QHash<QByteArray, QByteArray> storedChats;
    TestHttpServer server;
    Configuration configuration{server.baseURL()};
    std::shared_ptr<MemoryTokenStore> tokens =
        std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t"));
    APIClient client{configuration, tokens};
    QTemporaryDir directory;
    QString folder = directory.filePath(QStringLiteral("work"));
    SettingsDefaults defaults{directory.filePath(QStringLiteral("defaults.conf"))};
    CatalogStore catalog{client, defaults};
    ChatLoopSlots slots;
    QUuid accountID = QUuid::createUuid();
    ChatSession session{client, catalog, defaults, slots};
};

} // namespace kestrolan::test::chat
