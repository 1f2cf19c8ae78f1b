#pragma once

#include "service/server_origin.h"

#include <QProcessEnvironment>
#include <QUrl>

namespace kestrolan {

class Defaults;

// The service's validated, normalised base address.
class Configuration {
public:
    static constexpr auto productionBaseURL = QLatin1StringView("https://api.kestrolan.com");
    static constexpr auto environmentKey = QLatin1StringView("KESTROLAN_BASE_URL");
    static constexpr auto defaultsKey = QLatin1StringView("baseURL");

    // Throws ClientError::configuration for an address the app must not talk to.
    explicit Configuration(const QString& baseURL);

    // The environment first (even when empty: no fall-back), then the defaults, then production.
    static Configuration load(const QProcessEnvironment& environment, const Defaults& defaults);

    const QUrl& baseURL() const { return m_baseURL; }
    ServerOrigin origin() const { return ServerOrigin::of(m_baseURL); }

    // The base address plus an absolute API path such as "/api/chat".
    QUrl url(QStringView path) const;

private:
    QUrl m_baseURL;
};

} // namespace kestrolan
