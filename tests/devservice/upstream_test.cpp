#include "chat_request.h"
#include "devservice_process.h"
#include "event_stream.h"

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <httplib.h>
#include <mutex>
#include <thread>

using namespace kestrolan::test;

namespace {

// An OpenAI-compatible server with the habits of real ones: reasoning deltas, a second
// choice, CR LF framing, tool calls numbered from 3, a call without an id, a finish reason
// that says "stop" after tool calls, and usage in a chunk of its own.
class FakeUpstream {
public:
    enum class Mode { tools, error, broken };

    FakeUpstream() {
        m_server.Post("/v1/chat/completions", [this](const httplib::Request& request,
                                                     httplib::Response& response) {
            Mode mode;
            {
                std::lock_guard lock(m_mutex);
                m_bodies.append(
                    QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object());
                m_authorization =
                    QByteArray::fromStdString(request.get_header_value("Authorization"));
                mode = m_mode;
            }
            if (mode == Mode::error) {
                response.status = 500;
                response.set_content(
                    R"({"error":{"message":"model not loaded","type":"server_error"}})",
                    "application/json");
                return;
            }
            response.set_chunked_content_provider("text/event-stream", [mode](size_t,
                                                                              httplib::DataSink&
                                                                                  sink) {
                const auto send = [&sink](const std::string& data, const char* end = "\n\n") {
                    const auto event = "data: " + data + end;
                    sink.write(event.data(), event.size());
                };
                send(
                    R"({"id":"x","object":"chat.completion.chunk","created":1,"model":"fake-7b","system_fingerprint":"fp","choices":[{"index":0,"delta":{"role":"assistant","content":null,"reasoning_content":"thinking"},"logprobs":null,"finish_reason":null}]})");
                send(
                    R"({"choices":[{"index":0,"delta":{"content":"Sure, "}},{"index":1,"delta":{"content":"OTHER"}}]})");
                if (mode == Mode::broken)
                    return false;
                send(R"({"choices":[{"index":0,"delta":{"content":"reading.","refusal":null}}]})",
                     "\r\n\r\n");
                send(
                    R"({"choices":[{"index":0,"delta":{"tool_calls":[{"index":3,"id":"up_1","type":"function","function":{"name":"read_file","arguments":"{\"pa"}}]}}]})");
                send(
                    R"({"choices":[{"index":0,"delta":{"tool_calls":[{"index":3,"function":{"arguments":"th\":\"a\"}"}}]}}]})");
                send(
                    R"({"choices":[{"index":0,"delta":{"tool_calls":[{"index":4,"function":{"name":"list_directory","arguments":"{}"}}]}}]})");
                send(R"({"choices":[{"index":0,"delta":{},"finish_reason":"stop"}]})");
                sink.write(": ping\n\n", 8);
                send(
                    R"({"choices":[],"usage":{"prompt_tokens":1200,"completion_tokens":34,"total_tokens":1234}})");
                send("[DONE]");
                sink.done();
                return true;
            });
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
    }

    ~FakeUpstream() {
        m_server.stop();
        m_thread.join();
    }

    QString url() const { return QStringLiteral("http://127.0.0.1:%1/v1").arg(m_port); }
    void setMode(Mode mode) {
        std::lock_guard lock(m_mutex);
        m_mode = mode;
    }
    QList<QJsonObject> bodies() const {
        std::lock_guard lock(m_mutex);
        return m_bodies;
    }
    QByteArray authorization() const {
        std::lock_guard lock(m_mutex);
        return m_authorization;
    }

private:
    httplib::Server m_server;
    int m_port = 0;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    Mode m_mode = Mode::tools;
    QList<QJsonObject> m_bodies;
    QByteArray m_authorization;
};

QString writeCatalog(const QTemporaryDir& directory, const QString& upstreamUrl) {
    const auto path = directory.filePath(QStringLiteral("catalog.json"));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(QStringLiteral(R"({"models": [{"id": "local/fake", "display_name": "Fake 7B",
        "description": "A local model", "capabilities": {"tool_calling": true},
        "max_output_tokens": 512, "default_output_tokens": 256,
        "pricing": {"input_usd_per_mtok": "2.00", "output_usd_per_mtok": "8.00"},
        "upstream": {"model": "fake-7b", "url": "%1", "api_key_env": "FAKE_UPSTREAM_KEY"}}]})")
                   .arg(upstreamUrl)
                   .toUtf8());
    return path;
}

QJsonObject readFileTool() {
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("function")},
                       {QStringLiteral("function"),
                        QJsonObject{{QStringLiteral("name"), QStringLiteral("read_file")},
                                    {QStringLiteral("parameters"), QJsonObject{}}}}};
}

} // namespace

TEST(DevServiceUpstream, ChunksAreNormalisedAndBilledFromTheUpstreamUsage) {
    FakeUpstream upstream;
    QTemporaryDir directory;
    const DevServiceProcess service(
        {.arguments = {QStringLiteral("--catalog"), writeCatalog(directory, upstream.url())},
         .environment = {{QStringLiteral("FAKE_UPSTREAM_KEY"), QStringLiteral("s3cret")}}});
    const auto token = service.signIn();

    const auto request = chatRequest(QStringLiteral("local/fake"), QStringLiteral("Read a"),
                                     {{QStringLiteral("tools"), QJsonArray{readFileTool()}},
                                      {QStringLiteral("temperature"), 0.5}});
    const auto reply = service.post(QStringLiteral("/api/chat"), request, token);
    ASSERT_EQ(reply.status, 200) << reply.body.constData();

    // What the upstream server was asked.
    ASSERT_EQ(upstream.bodies().size(), 1);
    const auto sent = upstream.bodies().first();
    EXPECT_EQ(sent.value(QStringLiteral("model")).toString(), u"fake-7b");
    EXPECT_EQ(sent.value(QStringLiteral("stream")), QJsonValue(true));
    EXPECT_EQ(sent.value(QStringLiteral("stream_options")),
              QJsonObject({{QStringLiteral("include_usage"), true}}));
    EXPECT_EQ(sent.value(QStringLiteral("max_tokens")).toInt(), 256);
    EXPECT_EQ(sent.value(QStringLiteral("temperature")).toDouble(), 0.5);
    EXPECT_EQ(sent.value(QStringLiteral("messages")), request.value(QStringLiteral("messages")));
    EXPECT_EQ(sent.value(QStringLiteral("tools")), request.value(QStringLiteral("tools")));
    EXPECT_EQ(upstream.authorization(), "Bearer s3cret");

    // What the client gets.
    const auto stream = EventStream::parse(reply.body);
    EXPECT_EQ(stream.content(), u"Sure, reading.");
    QMap<int, QJsonObject> calls;
    for (const auto& chunk : stream.chunks()) {
        EXPECT_FALSE(chunk.contains(QStringLiteral("system_fingerprint")));
        for (const auto& choice : chunk.value(QStringLiteral("choices")).toArray()) {
            EXPECT_EQ(choice.toObject().value(QStringLiteral("index")).toInt(), 0);
            EXPECT_FALSE(choice.toObject().contains(QStringLiteral("logprobs")));
            const auto delta = choice.toObject().value(QStringLiteral("delta")).toObject();
            for (const auto& key : delta.keys())
                EXPECT_TRUE(key == u"role" || key == u"content" || key == u"tool_calls")
                    << key.toStdString();
            for (const auto& value : delta.value(QStringLiteral("tool_calls")).toArray()) {
                const auto call = value.toObject();
                auto& merged = calls[call.value(QStringLiteral("index")).toInt()];
                for (const auto& key : {QStringLiteral("id"), QStringLiteral("type")})
                    if (call.contains(key))
                        merged.insert(key, call.value(key));
                const auto function = call.value(QStringLiteral("function")).toObject();
                if (function.contains(QStringLiteral("name")))
                    merged.insert(QStringLiteral("name"), function.value(QStringLiteral("name")));
                merged.insert(QStringLiteral("arguments"),
                              QString(merged.value(QStringLiteral("arguments")).toString() +
                                      function.value(QStringLiteral("arguments")).toString()));
            }
        }
    }
    ASSERT_EQ(calls.keys(), (QList<int>{0, 1}));
    EXPECT_EQ(calls[0].value(QStringLiteral("id")).toString(), u"up_1");
    EXPECT_EQ(calls[0].value(QStringLiteral("name")).toString(), u"read_file");
    EXPECT_EQ(calls[0].value(QStringLiteral("arguments")).toString(), u"{\"path\":\"a\"}");
    EXPECT_TRUE(calls[1].value(QStringLiteral("id")).toString().startsWith(u"call_"));
    EXPECT_EQ(calls[1].value(QStringLiteral("type")).toString(), u"function");
    EXPECT_EQ(calls[1].value(QStringLiteral("name")).toString(), u"list_directory");
    EXPECT_EQ(stream.finishReasons(), QStringList{QStringLiteral("tool_calls")});
    EXPECT_EQ(stream.usages().value(0).value(QStringLiteral("prompt_tokens")).toInt(), 1200);
    // 1,200 × $2.00 + 34 × $8.00 per million = 2,400 + 272 millionths.
    EXPECT_EQ(stream.billingEvents().value(0).value(QStringLiteral("charged_usd")).toString(),
              u"0.002672");
    EXPECT_TRUE(stream.endsWithDone());
    const auto account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), 25'000'000 - 2'672);
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());
}

TEST(DevServiceUpstream, UpstreamFailuresBecomeErrorEvents) {
    FakeUpstream upstream;
    QTemporaryDir directory;
    const DevServiceProcess service(
        {.arguments = {QStringLiteral("--catalog"), writeCatalog(directory, upstream.url())},
         .environment = {{QStringLiteral("FAKE_UPSTREAM_KEY"), QStringLiteral("k")}}});
    const auto token = service.signIn();
    const auto request = chatRequest(QStringLiteral("local/fake"), QStringLiteral("hi"));

    upstream.setMode(FakeUpstream::Mode::error);
    const auto failed =
        EventStream::parse(service.post(QStringLiteral("/api/chat"), request, token).body);
    EXPECT_EQ(failed.billingEvents().value(0),
              QJsonObject({{QStringLiteral("state"), QStringLiteral("released")}}));
    const auto error = failed.errorEvents().value(0).value(QStringLiteral("error")).toObject();
    EXPECT_EQ(error.value(QStringLiteral("code")).toString(), u"upstream_error");
    EXPECT_EQ(error.value(QStringLiteral("message")).toString(),
              u"The upstream model server answered HTTP 500: model not loaded.");

    upstream.setMode(FakeUpstream::Mode::broken);
    const auto broken =
        EventStream::parse(service.post(QStringLiteral("/api/chat"), request, token).body);
    EXPECT_EQ(broken.content(), u"Sure, ");
    EXPECT_EQ(broken.errorEvents()
                  .value(0)
                  .value(QStringLiteral("error"))
                  .toObject()
                  .value(QStringLiteral("code")),
              QStringLiteral("upstream_error"));
    EXPECT_FALSE(broken.endsWithDone());

    const auto account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);
    EXPECT_TRUE(account.value(QStringLiteral("balanced")).toBool());

    // An unreachable server is an error event too, not a hang.
    const QTemporaryDir other;
    const DevServiceProcess lonely(
        {.arguments = {QStringLiteral("--catalog"),
                       writeCatalog(other, QStringLiteral("http://127.0.0.1:1/v1"))},
         .environment = {{QStringLiteral("FAKE_UPSTREAM_KEY"), QStringLiteral("k")}}});
    const auto unreachable =
        EventStream::parse(lonely.post(QStringLiteral("/api/chat"), request, lonely.signIn()).body);
    EXPECT_TRUE(unreachable.errorEvents()
                    .value(0)
                    .value(QStringLiteral("error"))
                    .toObject()
                    .value(QStringLiteral("message"))
                    .toString()
                    .startsWith(u"The upstream model server could not be reached"));
}

TEST(DevServiceUpstream, UpstreamModelsFromTheCommandLine) {
    FakeUpstream upstream;
    const DevServiceProcess service(
        {.arguments = {QStringLiteral("--upstream-url"), upstream.url(),
                       QStringLiteral("--upstream-model"), QStringLiteral("fake-7b")}});
    const auto models = service.get(QStringLiteral("/api/catalog"))
                            .json()
                            .value(QStringLiteral("models"))
                            .toArray();
    ASSERT_EQ(models.size(), 4); // the built-in three, then the upstream one
    EXPECT_EQ(models[3].toObject().value(QStringLiteral("id")).toString(), u"upstream/fake-7b");
    EXPECT_FALSE(models[3].toObject().contains(QStringLiteral("upstream")));

    const auto reply = service.post(
        QStringLiteral("/api/chat"),
        chatRequest(QStringLiteral("upstream/fake-7b"), QStringLiteral("hi")), service.signIn());
    const auto stream = EventStream::parse(reply.body);
    EXPECT_EQ(stream.content(), u"Sure, reading.");
    EXPECT_EQ(stream.billingEvents().value(0).value(QStringLiteral("charged_usd")).toString(),
              u"0.00");
    EXPECT_TRUE(upstream.authorization().isEmpty());

    // A key variable that is not set stops the start.
    const auto [status, error] = runRefused(
        {QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--data"),
         service.dataDirectory(), QStringLiteral("--upstream-url"), upstream.url(),
         QStringLiteral("--upstream-model"), QStringLiteral("m"),
         QStringLiteral("--upstream-api-key-env"), QStringLiteral("KESTROLAN_TEST_UNSET_KEY")});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(error.contains("KESTROLAN_TEST_UNSET_KEY")) << error.constData();
}

TEST(DevServiceUpstream, WebSearchThroughSearxng) {
    httplib::Server searxng;
    std::mutex mutex;
    QStringList queries;
    bool failing = false;
    searxng.Get("/searx/search", [&](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex);
        queries.append(QString::fromStdString(request.get_param_value("q")));
        EXPECT_EQ(request.get_param_value("format"), "json");
        if (failing) {
            response.status = 500;
            return;
        }
        response.set_content(R"({"query":"x","results":[
            {"title":"First","url":"https://one.example/","content":"The first hit","engine":"x"},
            {"title":"No address"},
            {"title":"Second","url":"https://two.example/","content":"Another"}]})",
                             "application/json");
    });
    const auto port = searxng.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { searxng.listen_after_bind(); });

    const DevServiceProcess service(
        {.arguments = {QStringLiteral("--search-upstream"),
                       QStringLiteral("http://127.0.0.1:%1/searx/").arg(port)}});
    const auto token = service.signIn();
    const auto query = QStringLiteral("c++ & qt=6 #1");
    const auto reply = service.post(QStringLiteral("/api/web/search"),
                                    QJsonObject{{QStringLiteral("query"), query}}, token);
    ASSERT_EQ(reply.status, 200) << reply.body.constData();
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(queries, QStringList{query});
        failing = true;
    }
    const auto results = reply.json().value(QStringLiteral("results")).toArray();
    ASSERT_EQ(results.size(), 2);
    EXPECT_EQ(results[1].toObject(),
              QJsonObject({{QStringLiteral("title"), QStringLiteral("Second")},
                           {QStringLiteral("url"), QStringLiteral("https://two.example/")},
                           {QStringLiteral("snippet"), QStringLiteral("Another")}}));

    // A failing engine costs nothing.
    const auto failed = service.post(QStringLiteral("/api/web/search"),
                                     QJsonObject{{QStringLiteral("query"), query}}, token);
    EXPECT_EQ(failed.status, 502);
    EXPECT_EQ(failed.error().value(QStringLiteral("code")).toString(), u"search_failed");
    const auto account = service.adminAccount();
    EXPECT_EQ(account.value(QStringLiteral("balance_millionths")).toInteger(), 25'000'000 - 5'000);
    EXPECT_EQ(account.value(QStringLiteral("held_millionths")).toInteger(), 0);

    searxng.stop();
    serving.join();
}
