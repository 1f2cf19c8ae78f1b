#include "conversation/tool_call.h"

#include "support/json_reader.h"

namespace kestrolan {

QJsonObject ToolCall::toJson() const {
    return QJsonObject{
        {QStringLiteral("id"), id},
        {QStringLiteral("type"), type},
        {QStringLiteral("function"),
         QJsonObject{{QStringLiteral("name"), function.name},
                     {QStringLiteral("arguments"), function.arguments}}},
    };
}

ToolCall ToolCall::fromJson(const QJsonObject& object) {
    const JsonReader reader(object);
    const JsonReader function(reader.object(u"function"));
    return ToolCall{reader.string(u"id"), reader.string(u"type"),
                    Function{function.string(u"name"), function.string(u"arguments")}};
}

} // namespace kestrolan
