#pragma once

#include <QJsonObject>
#include <QString>

namespace kestrolan {

// A text attachment as it was sent with a user message.
struct WireAttachment {
    QString name;
    QString text;

    bool operator==(const WireAttachment&) const = default;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing or of the wrong type.
    static WireAttachment fromJson(const QJsonObject& object);
};

} // namespace kestrolan
