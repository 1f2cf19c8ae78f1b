#include "tools/tool_approval.h"

namespace kestrolan {

QString ToolApproval::disclosure() const {
    if (std::holds_alternative<ToolOperation::WebFetch>(operation.payload()))
        return QStringLiteral(
            "This chat has used local read tools. Fetching this exact URL may disclose local data "
            "in the URL to the website. Page text will be sent to inference. Allow once or Deny.");
    return QStringLiteral("This operation's bounded result will be sent to inference. Scope: "
                          "selected workspace. Allow once or Deny.");
}

QString ToolApproval::sheetNote() {
    return QStringLiteral(
        "Closing or waiting two minutes denies this operation. File text cannot grant permission.");
}

} // namespace kestrolan
