#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

namespace kestrolan::test {

// A /api/chat body with one user message, plus any extra keys.
inline QJsonObject chatRequest(const QString& model, const QString& message,
                               const QJsonObject& extra = {}) {
    QJsonObject body{
        {QStringLiteral("model"), model},
        {QStringLiteral("messages"),
         QJsonArray{QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                                {QStringLiteral("content"), message}}}},
    };
    for (auto it = extra.begin(); it != extra.end(); ++it)
        body.insert(it.key(), it.value());
    return body;
}

inline QJsonObject scripted(const QString& script, const QJsonObject& extra = {}) {
    return chatRequest(QStringLiteral("kestrolan/scripted"), script, extra);
}

} // namespace kestrolan::test
