#include "platform/settings_defaults.h"
#include "service/client_error.h"
#include "service/configuration.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

bool refused(const QString& address) {
    try {
        Configuration{address};
        return false;
    } catch (const ClientError& error) {
        EXPECT_EQ(error.kind(), ClientError::Kind::configuration);
        EXPECT_EQ(error.description(), u"The Kestrolan server address is invalid.");
        return true;
    }
}

} // namespace

TEST(Configuration, AcceptsHttpsAnywhereAndHttpOnlyOnLoopback) {
    const Configuration local(QStringLiteral("http://localhost:8080"));
    EXPECT_EQ(local.origin().key(), u"http://localhost:8080");
    EXPECT_EQ(Configuration(QStringLiteral("http://127.0.0.1")).origin().key(),
              u"http://127.0.0.1:80");
    EXPECT_EQ(Configuration(QStringLiteral("http://[::1]:9")).origin().key(), u"http://::1:9");
    EXPECT_EQ(Configuration(QStringLiteral("https://example.com/")).origin().key(),
              u"https://example.com:443");

    EXPECT_TRUE(refused(QStringLiteral("http://example.com")));
    EXPECT_TRUE(refused(QStringLiteral("http://192.168.1.2:8787")));
    EXPECT_TRUE(refused(QStringLiteral("ftp://localhost")));
    EXPECT_TRUE(refused(QStringLiteral("ws://localhost")));
}

TEST(Configuration, NormalisesCaseAndRefusesExtraParts) {
    const Configuration upper(QStringLiteral("HTTPS://API.Example.COM:8443"));
    EXPECT_EQ(upper.baseURL().toString(), u"https://api.example.com:8443");
    EXPECT_EQ(upper.origin().key(), u"https://api.example.com:8443");
    EXPECT_EQ(Configuration(QStringLiteral("HTTP://LOCALHOST")).origin().key(),
              u"http://localhost:80");

    EXPECT_TRUE(refused(QStringLiteral("https://example.com/api")));
    EXPECT_TRUE(refused(QStringLiteral("https://user@example.com")));
    EXPECT_TRUE(refused(QStringLiteral("https://user:pw@example.com")));
    EXPECT_TRUE(refused(QStringLiteral("https://example.com/?a=b")));
    EXPECT_TRUE(refused(QStringLiteral("https://example.com/#top")));
    EXPECT_TRUE(refused(QStringLiteral("")));
    EXPECT_TRUE(refused(QStringLiteral("example.com")));
    EXPECT_TRUE(refused(QStringLiteral("https://")));
}

TEST(Configuration, BuildsEndpointURLsUnderTheBase) {
    EXPECT_EQ(Configuration(QStringLiteral("http://localhost:8787")).url(u"/api/chat").toString(),
              u"http://localhost:8787/api/chat");
    EXPECT_EQ(Configuration(QStringLiteral("https://example.com/")).url(u"/api/chats/x").toString(),
              u"https://example.com/api/chats/x");
}

TEST(Configuration, LoadsEnvironmentThenDefaultsThenProduction) {
    QTemporaryDir dir;
    SettingsDefaults defaults(dir.filePath(QStringLiteral("settings.conf")));
    QProcessEnvironment empty;

    EXPECT_EQ(Configuration::load(empty, defaults).origin(), ServerOrigin::production());
    EXPECT_EQ(ServerOrigin::production().port, 443);
    EXPECT_EQ(ServerOrigin::production().scheme, u"https");

    defaults.setValue(QStringLiteral("baseURL"), QStringLiteral("http://localhost:9000"));
    EXPECT_EQ(Configuration::load(empty, defaults).origin().key(), u"http://localhost:9000");

    QProcessEnvironment environment;
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), QStringLiteral("http://127.0.0.1:1"));
    EXPECT_EQ(Configuration::load(environment, defaults).origin().key(), u"http://127.0.0.1:1");

    // A set but invalid environment value is an error, never a silent fall-back.
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), QString());
    EXPECT_THROW(Configuration::load(environment, defaults), ClientError);
    defaults.setValue(QStringLiteral("baseURL"), QStringLiteral("http://example.com"));
    EXPECT_THROW(Configuration::load(empty, defaults), ClientError);
}

TEST(ClientError, DescribesHttpStatusAndFixedTexts) {
    EXPECT_EQ(ClientError::http(502).description(),
              u"Kestrolan could not complete the request (HTTP 502).");
    EXPECT_EQ(ClientError::keychain(-25293).description(),
              u"The sign-in token could not be accessed in Keychain.");
    EXPECT_EQ(ClientError::keychain(-25293).status(), -25293);
    EXPECT_STREQ(ClientError(ClientError::Kind::noAuthorization).what(), "Sign in to continue.");
}
