#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "memory_token_store.h"
#include "platform/settings_defaults.h"
#include "service/api_client.h"
#include "service/configuration.h"
#include "test_http_server.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTemporaryDir>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

constexpr int chunks = 20'000;

const QByteArray kCatalog =
    R"({"models":[{"id":"kestrolan/echo","display_name":"Echo","available":true,)"
    R"("description":"d","context_tokens":200000,"max_output_tokens":8192,)"
    R"("default_output_tokens":1024}]})";

// One reply of `chunks` OpenAI-style text deltas, then its finish reason, billing and end.
QByteArray replyStream() {
    static const char* const words[] = {"Hello", " world",     ",",    " the",   " quick", " brown",
                                        " fox",  " caf\u00e9", " \\n", " jumps", " over",  " dog"};
    QByteArray out;
    for (int i = 0; i < chunks; ++i) {
        out += "data: {\"id\":\"chatcmpl-A1b2C3d4\",\"object\":\"chat.completion.chunk\","
               "\"created\":1718000000,\"model\":\"kestrolan/echo\",\"choices\":[{\"index\":0,"
               "\"delta\":{\"content\":\"";
        out += words[i % std::size(words)];
        out += "\"},\"finish_reason\":null}]}\n\n";
    }
    out += "data: {\"choices\":[{\"index\":0,\"delta\":{},\"finish_reason\":\"stop\"}]}\n\n"
           "event: kestrolan.billing\ndata: {\"prompt_tokens\":10,\"completion_tokens\":20000,"
           "\"charged_usd\":\"0.012\",\"state\":\"settled\"}\n\ndata: [DONE]\n\n";
    return out;
}

double cpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

QCoreApplication& application() {
    static int argc = 1;
    static char name[] = "kestrolan-bench";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app =
        QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
    return app ? *app : *QCoreApplication::instance();
}

template <typename T>
QCoro::Task<void> drive(QCoro::Task<T> task, bool* done, QEventLoop* loop) {
    co_await task;
    *done = true;
    loop->quit();
}

template <typename T>
void run(QCoro::Task<T> task) {
    QEventLoop loop;
    bool done = false;
    auto driver = drive(std::move(task), &done, &loop);
    if (!done)
        loop.exec();
}

// One turn whose reply streams 20,000 text chunks from an in-process server: decoding, the
// session's bookkeeping per chunk and the per-reply update signal a view listens to. CPU time is
// the whole process's (the main thread, Qt's network thread and the server's thread writing
// prepared bytes); main_thread_us_per_chunk is the session's thread alone. BM_ChatTurnServer
// gives what the server side costs on its own, to subtract.
void BM_ChatTurn(benchmark::State& state) {
    application();
    const QByteArray body = replyStream();
    TestHttpServer server([&](const RecordedRequest& request) {
        if (request.target == "/api/catalog")
            return TestResponse::json(200, kCatalog);
        auto response = TestResponse::eventStream(body);
        response.pieceSize = 16 * 1024;
        return response;
    });
    QTemporaryDir directory;
    const Configuration configuration(server.baseURL());
    APIClient client(configuration, std::make_shared<MemoryTokenStore>(configuration.origin(),
                                                                       QStringLiteral("t")));
    SettingsDefaults defaults(directory.filePath(QStringLiteral("defaults.conf")));
    CatalogStore catalog(client, defaults);
    run(catalog.refresh());
    if (!catalog.select(QStringLiteral("kestrolan/echo"))) {
        state.SkipWithError("catalog not loaded");
        return;
    }

    double processCPU = 0;
    double mainCPU = 0;
    qsizetype updates = 0;
    for (auto _ : state) {
        ChatLoopSlots slots;
        ChatSession session(client, catalog, defaults, slots);
        QObject::connect(&session, &ChatSession::replyChanged,
                         [&updates](QUuid, int) { ++updates; });
        const double process0 = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
        const double main0 = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        run(session.send(QStringLiteral("Write at length."), {}));
        processCPU += cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - process0;
        mainCPU += cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - main0;
        const auto& reply = session.conversation().turns.last().replies.first();
        if (reply.state != SavedConversation::Reply::State::complete) {
            state.SkipWithError("the turn did not complete");
            return;
        }
        benchmark::DoNotOptimize(reply.text.size());
    }
    const double turns = double(state.iterations());
    state.counters["process_us_per_chunk"] = processCPU / turns / chunks * 1e6;
    state.counters["main_thread_us_per_chunk"] = mainCPU / turns / chunks * 1e6;
    state.counters["updates_per_turn"] = double(updates) / turns;
    state.SetItemsProcessed(state.iterations() * chunks);
}
BENCHMARK(BM_ChatTurn)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

// The same stream read by a bare blocking socket that only counts bytes: the server's writes
// plus the least a client can do.
void BM_ChatTurnServer(benchmark::State& state) {
    const QByteArray body = replyStream();
    TestHttpServer server([&body](const RecordedRequest&) {
        auto response = TestResponse::eventStream(body);
        response.pieceSize = 16 * 1024;
        return response;
    });
    const QByteArray request =
        "POST /api/chat HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 2\r\n\r\n{}";
    char buffer[64 * 1024];
    for (auto _ : state) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(server.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            write(fd, request.constData(), size_t(request.size())) != request.size()) {
            state.SkipWithError("could not reach the server");
            if (fd >= 0)
                close(fd);
            return;
        }
        qint64 received = 0;
        for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;)
            received += n;
        close(fd);
        if (received < body.size()) {
            state.SkipWithError("short read");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * chunks);
}
BENCHMARK(BM_ChatTurnServer)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

} // namespace
