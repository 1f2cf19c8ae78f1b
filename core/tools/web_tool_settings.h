#pragma once

#include <QString>

namespace kestrolan {

class Defaults;

// Which web tools the user switched on. Both stay off until the user turns them on.
struct WebToolSettings {
    static inline const QString searchEnabledKey = QStringLiteral("web.searchEnabled");
    static inline const QString fetchEnabledKey = QStringLiteral("web.fetchEnabled");

    bool searchEnabled = false;
    bool fetchEnabled = false;

    bool operator==(const WebToolSettings&) const = default;

    static WebToolSettings load(const Defaults& defaults);
    void store(Defaults& defaults) const;

    // System text naming the web tools the model has and saying that what they return is
    // untrusted data; empty when no web tool is on or the model cannot call tools.
    QString systemPrompt(bool toolCalling) const;
};

} // namespace kestrolan
