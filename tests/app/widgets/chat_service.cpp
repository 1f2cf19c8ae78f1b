#include "chat_service.h"

#include "run_task.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

using namespace std::chrono_literals;

namespace kestrolan::test {

namespace {

const QByteArray catalogBody =
    R"({"models":[)"
    R"({"id":"lab/archive","display_name":"Archive","available":false,"description":"Retired model",)"
    R"("context_tokens":8000,"max_output_tokens":1024,"default_output_tokens":512},)"
    R"({"id":"lab/swift","display_name":"Swift","available":true,"description":"Fast and small",)"
    R"("capabilities":{"tool_calling":true,"response_format":false},"context_tokens":128000,)"
    R"("max_output_tokens":8192,"default_output_tokens":1024,)"
    R"("pricing":{"input_usd_per_mtok":"0.15","output_usd_per_mtok":"0.60"}},)"
    R"({"id":"lab/fast-old","display_name":"Fast Old","available":false,"description":"Fast, withdrawn",)"
    R"("context_tokens":4000,"max_output_tokens":1024,"default_output_tokens":512},)"
    R"({"id":"lab/deep","display_name":"Deep","available":true,"description":"Careful reasoning",)"
    R"("capabilities":{"tool_calling":false,"response_format":true},"context_tokens":1500000,)"
    R"("max_output_tokens":8192,"default_output_tokens":2048,)"
    R"("pricing":{"input_usd_per_mtok":"2.5","output_usd_per_mtok":"10"}}]})";

const QByteArray accountBody =
    R"({"id":"6f1c1a52-8b9e-4a57-9a53-3f0d8e0b7a11","zero_retention":{"enabled":false},)"
    R"("email":"ada@example.com","balance_usd":"10.00","held_usd":"0.00",)"
    R"("available_usd":"10.00"})";

QByteArray frame(const QJsonObject& object) {
    return "data: " + QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n\n";
}

QByteArray delta(const QJsonObject& delta) {
    return frame(
        {{QStringLiteral("choices"), QJsonArray{QJsonObject{{QStringLiteral("delta"), delta}}}}});
}

} // namespace

ChatService::ChatService()
    : configuration(m_server.baseURL())
    , tokens(std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t")))
    , client(configuration, tokens)
    , defaults(m_directory.filePath(QStringLiteral("defaults.conf")))
    , catalog(client, defaults)
    , session(client, catalog, defaults, slots) {
    m_server.setHandler([this](const RecordedRequest& request) { return respond(request); });
    client.session().setTimeouts({.transfer = 10s, .total = 60s});
    QDir().mkpath(folder());
    runTask(catalog.refresh());
    catalog.select(QStringLiteral("lab/swift"));
    session.setAccountID(accountID);
}

ChatService::~ChatService() {
    session.stop();
    runTask(session.waitUntilIdle());
}

TestResponse ChatService::respond(const RecordedRequest& request) {
    if (request.target == "/api/catalog")
        return TestResponse::json(200, catalogBody);
    if (request.target == "/api/account")
        return TestResponse::json(200, accountBody);
    std::lock_guard lock(mutex);
    if (request.target == "/api/chats" && request.method == "GET")
        return TestResponse::json(200, chatList);
    if (request.target.startsWith("/api/chats/")) {
        const QString id = QString::fromUtf8(request.target.mid(11));
        if (request.method == "GET" && saved.contains(id))
            return TestResponse::json(200, saved.value(id));
        return TestResponse::json(200, R"({"id":")" + id.toUtf8() +
                                           R"(","title":"t","updated_at":"2025-01-01T00:00:00Z"})");
    }
    if (request.target == "/api/chat" && !streams.empty()) {
        TestResponse response = std::move(streams.front());
        streams.pop_front();
        return response;
    }
    return TestResponse::json(500, R"({"error":{"message":"The model is overloaded."}})");
}

void ChatService::enqueue(TestResponse response) {
    std::lock_guard lock(mutex);
    streams.push_back(std::move(response));
}

void ChatService::enqueue(const QByteArray& eventStream) {
    enqueue(TestResponse::eventStream(eventStream));
}

void ChatService::store(const QUuid& id, const QJsonObject& document) {
    std::lock_guard lock(mutex);
    saved.insert(id.toString(QUuid::WithoutBraces),
                 QJsonDocument(document).toJson(QJsonDocument::Compact));
}

QByteArray ChatService::text(const QString& content) {
    return delta({{QStringLiteral("content"), content}});
}

QByteArray ChatService::finish(const QString& reason) {
    return frame({{QStringLiteral("choices"),
                   QJsonArray{QJsonObject{{QStringLiteral("delta"), QJsonObject()},
                                          {QStringLiteral("finish_reason"), reason}}}}});
}

QByteArray ChatService::billing(const char* chargedUSD) {
    return QByteArray("event: kestrolan.billing\ndata: {\"prompt_tokens\":10,\"completion_tokens\":"
                      "2,\"charged_usd\":\"") +
           chargedUSD + "\",\"state\":\"settled\"}\n\n";
}

QByteArray ChatService::done() {
    return "data: [DONE]\n\n";
}

QByteArray ChatService::answer(const QString& content, const char* chargedUSD) {
    return text(content) + finish(QStringLiteral("stop")) + billing(chargedUSD) + done();
}

QByteArray ChatService::readCall(const QString& callID, const QString& path) {
    const QString arguments = QString::fromUtf8(
        QJsonDocument(QJsonObject{{QStringLiteral("path"), path}}).toJson(QJsonDocument::Compact));
    return delta(
        {{QStringLiteral("tool_calls"),
          QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                 {QStringLiteral("id"), callID},
                                 {QStringLiteral("type"), QStringLiteral("function")},
                                 {QStringLiteral("function"),
                                  QJsonObject{{QStringLiteral("name"), QStringLiteral("read_file")},
                                              {QStringLiteral("arguments"), arguments}}}}}}});
}

QJsonObject conversationDocument(int turns, int replyBytes) {
    QJsonArray list;
    const QString paragraph = QStringLiteral(
        "The tide tables for the harbour list two highs and two lows each day; **spring tides** "
        "follow the new and full moon. ");
    QString reply;
    while (reply.size() < replyBytes)
        reply += paragraph;
    for (int i = 0; i < turns; ++i) {
        list.append(QJsonObject{
            {QStringLiteral("user"), QStringLiteral("Question %1 about the tides?").arg(i + 1)},
            {QStringLiteral("replies"),
             QJsonArray{QJsonObject{{QStringLiteral("slot"), 0},
                                    {QStringLiteral("model"), QStringLiteral("lab/swift")},
                                    {QStringLiteral("text"), reply.left(replyBytes)},
                                    {QStringLiteral("state"), QStringLiteral("complete")},
                                    {QStringLiteral("meta"), QJsonArray()}}}}});
    }
    return {{QStringLiteral("version"), 2},
            {QStringLiteral("title"), QStringLiteral("Tides")},
            {QStringLiteral("slots"), QJsonArray{QStringLiteral("lab/swift")}},
            {QStringLiteral("settings"), QJsonObject{{QStringLiteral("system"), QString()},
                                                     {QStringLiteral("maxTokens"), QString()},
                                                     {QStringLiteral("temperature"), QString()}}},
            {QStringLiteral("turns"), list}};
}

} // namespace kestrolan::test
