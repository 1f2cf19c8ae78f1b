#include "account/catalog.h"
#include "account/catalog_store.h"
#include "memory_token_store.h"
#include "platform/settings_defaults.h"
#include "run_task.h"
#include "service/api_client.h"
#include "service/client_error.h"
#include "test_http_server.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

QByteArray model(const char* id, bool available) {
    return QByteArray(R"({"id":")") + id + R"(","display_name":")" + id + R"(","available":)" +
           (available ? "true" : "false") +
           R"(,"description":"d","max_output_tokens":4096,"default_output_tokens":1024})";
}

QByteArray catalog(std::initializer_list<QByteArray> models) {
    QByteArrayList list(models);
    return R"({"models":[)" + list.join(',') + "]}";
}

struct Fixture {
    Fixture()
        : configuration(server.baseURL())
        , tokens(std::make_shared<MemoryTokenStore>(configuration.origin(), QStringLiteral("t")))
        , client(configuration, tokens)
        , defaults(directory.filePath(QStringLiteral("defaults.conf")))
        , store(client, defaults) {}

    TestHttpServer server;
    Configuration configuration;
    std::shared_ptr<MemoryTokenStore> tokens;
    APIClient client;
    QTemporaryDir directory;
    SettingsDefaults defaults;
    CatalogStore store;
};

} // namespace

TEST(Catalog, DecodesEveryFieldAndEncodesTheSameJson) {
    const QByteArray json =
        R"({"models":[{"id":"m1","display_name":"Model One","available":true,)"
        R"("description":"Fast.","capabilities":{"tool_calling":true,)"
        R"("response_format":false},"context_tokens":128000,)"
        R"("max_output_tokens":8192,"default_output_tokens":2048,)"
        R"("pricing":{"input_usd_per_mtok":"0.15","output_usd_per_mtok":"0.6"}}]})";
    const auto decoded = Catalog::fromJson(QJsonDocument::fromJson(json).object());
    ASSERT_EQ(decoded.models.size(), 1);
    const auto& m = decoded.models[0];
    EXPECT_EQ(m.displayName, u"Model One");
    EXPECT_TRUE(m.capabilities && m.capabilities->toolCalling && !m.capabilities->responseFormat);
    EXPECT_EQ(m.contextTokens, 128000);
    EXPECT_EQ(m.pricing->outputUSDPerMTok, u"0.6");
    EXPECT_EQ(m.pricing->cachedInputUSDPerMTok, std::nullopt);
    EXPECT_EQ(QJsonDocument(decoded.toJson()), QJsonDocument::fromJson(json));
}

TEST(CatalogStore, FetchesWithoutATokenAndSettlesTheSelection) {
    Fixture f;
    f.server.enqueue(TestResponse::json(
        200, catalog({model("off", false), model("a", true), model("b", true)})));
    runTask(f.store.refresh());
    EXPECT_FALSE(f.server.requests().value(0).headers.contains("authorization"));
    EXPECT_EQ(f.server.requests().value(0).target, "/api/catalog");
    EXPECT_EQ(f.store.models().size(), 3);
    EXPECT_EQ(f.store.selectedModelID(), u"a");
    EXPECT_EQ(f.defaults.string(QStringLiteral("lastUsedModel")), std::nullopt);

    // An unavailable or unknown model is not selected, and not remembered.
    EXPECT_FALSE(f.store.select(QStringLiteral("off")));
    EXPECT_FALSE(f.store.select(QStringLiteral("missing")));
    EXPECT_EQ(f.store.selectedModelID(), u"a");
    EXPECT_EQ(f.defaults.string(QStringLiteral("lastUsedModel")), std::nullopt);
    EXPECT_TRUE(f.store.select(QStringLiteral("b")));
    EXPECT_EQ(f.defaults.string(QStringLiteral("lastUsedModel")), u"b");

    // A later refresh keeps the current selection even when the model is gone.
    f.server.enqueue(TestResponse::json(200, catalog({model("a", true)})));
    runTask(f.store.refresh());
    EXPECT_EQ(f.store.selectedModelID(), u"b");
    EXPECT_FALSE(f.store.isAvailable(QStringLiteral("b")));
}

TEST(CatalogStore, TheRememberedModelIsTakenAsStored) {
    Fixture f;
    f.defaults.setValue(QStringLiteral("lastUsedModel"), QStringLiteral("retired"));
    f.server.enqueue(TestResponse::json(200, catalog({model("a", true)})));
    runTask(f.store.refresh());
    EXPECT_EQ(f.store.selectedModelID(), u"retired");

    Fixture empty;
    empty.server.enqueue(TestResponse::json(200, catalog({})));
    runTask(empty.store.refresh());
    EXPECT_TRUE(empty.store.models().isEmpty());
    EXPECT_EQ(empty.store.selectedModelID(), std::nullopt);
    EXPECT_EQ(empty.store.errorMessage(), std::nullopt);

    Fixture unavailable;
    unavailable.server.enqueue(TestResponse::json(200, catalog({model("off", false)})));
    runTask(unavailable.store.refresh());
    EXPECT_EQ(unavailable.store.selectedModelID(), std::nullopt);
}

TEST(CatalogStore, AFailedRefreshKeepsTheLastCatalog) {
    Fixture f;
    f.server.enqueue(TestResponse::json(200, catalog({model("a", true), model("b", true)})));
    runTask(f.store.refresh());
    ASSERT_TRUE(f.store.select(QStringLiteral("b")));

    f.server.enqueue(TestResponse::json(502, "<html>bad gateway</html>"));
    runTask(f.store.refresh());
    EXPECT_EQ(f.store.errorMessage(), u"Kestrolan could not complete the request (HTTP 502).");
    EXPECT_EQ(f.store.models().size(), 2);
    EXPECT_EQ(f.store.selectedModelID(), u"b");

    // Wrong types and missing fields are unreadable, never half-loaded.
    for (const QByteArray& body :
         {QByteArray(R"({"models":[{"id":"x"}]})"), QByteArray(R"({"models":{}})"),
          QByteArray(R"([])"), QByteArray("not json"),
          catalog({model("a", true), R"({"id":"b","display_name":"B","available":"yes",)"
                                     R"("description":"","max_output_tokens":1,)"
                                     R"("default_output_tokens":1})"})}) {
        f.server.enqueue(TestResponse::json(200, body));
        runTask(f.store.refresh());
        EXPECT_EQ(f.store.errorMessage(), u"Kestrolan returned an unreadable response.")
            << body.constData();
        EXPECT_EQ(f.store.models().size(), 2);
    }

    f.server.enqueue(TestResponse::json(200, catalog({model("c", true)})));
    runTask(f.store.refresh());
    EXPECT_EQ(f.store.errorMessage(), std::nullopt);
    EXPECT_EQ(f.store.models().value(0).id, u"c");
}
