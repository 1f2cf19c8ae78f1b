#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace kestrolan::test {

// A reply stream split the way a client reads it: events (their "event" name and joined
// "data"), comment lines counted, and how its lines ended. Written for these tests alone, so
// that a fault in the service's framing cannot hide behind a shared parser.
struct EventStream {
    struct Event {
        QByteArray name;
        QByteArray data;
        QJsonObject json() const;
    };

    QList<Event> events;
    int comments = 0;
    int crlfLines = 0;
    int lfLines = 0; // lines ended by a bare LF
    bool endsWithBlankLine = false;

    static EventStream parse(QByteArray body);

    // The chunk events (not named, not "[DONE]").
    QList<QJsonObject> chunks() const;
    // All content deltas joined, and each on its own.
    QString content() const;
    QStringList contentPieces() const;
    QList<QJsonObject> billingEvents() const;
    QList<QJsonObject> errorEvents() const;
    bool endsWithDone() const;
    // The finish reasons, in order.
    QStringList finishReasons() const;
    QList<QJsonObject> usages() const;
};

} // namespace kestrolan::test
