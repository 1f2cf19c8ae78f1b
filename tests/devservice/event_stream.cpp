#include "event_stream.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace kestrolan::test {

QJsonObject EventStream::Event::json() const {
    return QJsonDocument::fromJson(data).object();
}

EventStream EventStream::parse(QByteArray body) {
    EventStream stream;
    stream.endsWithBlankLine = body.endsWith("\n\n") || body.endsWith("\r\n\r\n");
    QList<QByteArray> data;
    QByteArray name;
    qsizetype position = 0;
    while (position < body.size()) {
        auto end = body.indexOf('\n', position);
        if (end < 0)
            end = body.size();
        auto line = body.sliced(position, end - position);
        if (line.endsWith('\r')) {
            line.chop(1);
            ++stream.crlfLines;
        } else if (end < body.size()) {
            ++stream.lfLines;
        }
        position = end + 1;
        if (line.isEmpty()) {
            if (!data.isEmpty())
                stream.events.append(Event{name, data.join('\n')});
            data.clear();
            name.clear();
        } else if (line.startsWith(':')) {
            ++stream.comments;
        } else if (line.startsWith("data:")) {
            auto value = line.sliced(5);
            if (value.startsWith(' '))
                value.remove(0, 1);
            data.append(value);
        } else if (line.startsWith("event:")) {
            name = line.sliced(6).trimmed();
        }
    }
    return stream;
}

QList<QJsonObject> EventStream::chunks() const {
    QList<QJsonObject> result;
    for (const auto& event : events)
        if (event.name.isEmpty() && event.data != "[DONE]")
            result.append(event.json());
    return result;
}

QStringList EventStream::contentPieces() const {
    QStringList pieces;
    for (const auto& chunk : chunks())
        for (const auto& choice : chunk.value(QStringLiteral("choices")).toArray()) {
            const auto content = choice.toObject()
                                     .value(QStringLiteral("delta"))
                                     .toObject()
                                     .value(QStringLiteral("content"));
            if (content.isString())
                pieces.append(content.toString());
        }
    return pieces;
}

QString EventStream::content() const {
    return contentPieces().join(QString());
}

QList<QJsonObject> EventStream::billingEvents() const {
    QList<QJsonObject> result;
    for (const auto& event : events)
        if (event.name == "kestrolan.billing")
            result.append(event.json());
    return result;
}

QList<QJsonObject> EventStream::errorEvents() const {
    QList<QJsonObject> result;
    for (const auto& event : events)
        if (event.name == "error")
            result.append(event.json());
    return result;
}

bool EventStream::endsWithDone() const {
    return !events.isEmpty() && events.last().name.isEmpty() && events.last().data == "[DONE]";
}

QStringList EventStream::finishReasons() const {
    QStringList reasons;
    for (const auto& chunk : chunks())
        for (const auto& choice : chunk.value(QStringLiteral("choices")).toArray()) {
            const auto reason = choice.toObject().value(QStringLiteral("finish_reason"));
            if (reason.isString())
                reasons.append(reason.toString());
        }
    return reasons;
}

QList<QJsonObject> EventStream::usages() const {
    QList<QJsonObject> result;
    for (const auto& chunk : chunks())
        if (chunk.value(QStringLiteral("usage")).isObject())
            result.append(chunk.value(QStringLiteral("usage")).toObject());
    return result;
}

} // namespace kestrolan::test
