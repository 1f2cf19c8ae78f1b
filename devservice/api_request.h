#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>
#include <utility>

namespace kestrolan::devservice {

// One request as the endpoints see it, independent of the HTTP library.
struct ApiRequest {
    QByteArray method;
    QString path;
    QStringList pathArguments;                        // the route's captures, in order
    QHash<QString, QString> parameters;               // query and form fields, first value
    QList<std::pair<QByteArray, QByteArray>> headers; // names lower-cased
    QByteArray body;
    QString remoteAddress;

    QByteArray header(QByteArrayView name) const {
        const auto wanted = name.toByteArray().toLower();
        for (const auto& [key, value] : headers)
            if (key == wanted)
                return value;
        return {};
    }

    std::optional<QString> parameter(const QString& name) const {
        const auto it = parameters.constFind(name);
        if (it == parameters.constEnd())
            return std::nullopt;
        return *it;
    }
};

} // namespace kestrolan::devservice
