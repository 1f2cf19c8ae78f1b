#include "tools/tool_result.h"

#include "error.h"
#include "support/json_text.h"
#include "tools/harness_error.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace kestrolan {

QString ToolResult::success(const QJsonObject& object) {
    // QJsonObject keeps its keys sorted, so the compact text is in key order.
    return bounded(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString ToolResult::bounded(const QByteArray& serialized) {
    if (serialized.size() > maxBytes)
        return truncated();
    return QString::fromUtf8(serialized);
}

QString ToolResult::failure(const std::exception& error) {
    QString status = QStringLiteral("failed");
    QString message;
    if (const auto* harness = dynamic_cast<const HarnessError*>(&error)) {
        if (harness->kind() == HarnessError::Kind::accessDenied)
            status = QStringLiteral("denied");
        else if (harness->kind() == HarnessError::Kind::interruptedMutation)
            status = QStringLiteral("uncertain");
    }
    if (const auto* known = dynamic_cast<const Error*>(&error))
        message = known->description();
    else
        message = QString::fromUtf8(error.what());
    // Text that is not valid Unicode has no faithful JSON form.
    if (!message.isValidUtf16())
        return unencodable();
    // A QJsonObject would sort "message" first; the status leads.
    return QString::fromUtf8("{\"status\":" + jsonStringLiteral(status) +
                             ",\"message\":" + jsonStringLiteral(message) + '}');
}

QString ToolResult::cancelled() {
    return QStringLiteral(
        R"({"status":"cancelled","message":"Interrupted; inspect mutations before retrying."})");
}

QString ToolResult::truncated() {
    return QStringLiteral(
        R"({"truncated":true,"message":"Output exceeded 32 KiB; request a smaller page or range."})");
}

QString ToolResult::unencodable() {
    return QStringLiteral(
        R"({"status":"failed","message":"The tool result could not be encoded."})");
}

} // namespace kestrolan
