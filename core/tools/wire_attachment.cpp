#include "tools/wire_attachment.h"

#include "support/json_reader.h"

namespace kestrolan {

QJsonObject WireAttachment::toJson() const {
    return QJsonObject{{QStringLiteral("name"), name}, {QStringLiteral("text"), text}};
}

WireAttachment WireAttachment::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    return WireAttachment{reader.string(u"name"), reader.string(u"text")};
}

} // namespace kestrolan
