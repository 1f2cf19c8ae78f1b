#pragma once

#include "tools/attachment_error.h"
#include "tools/wire_attachment.h"

#include <QList>
#include <QString>
#include <optional>

namespace kestrolan {

// The bounds on text sent along with one user message, and how that text reaches the model.
struct TextAttachments {
    static constexpr qsizetype maxFiles = 20;
    static constexpr qsizetype maxFileBytes = 64 * 1024;
    static constexpr qsizetype maxTotalBytes = 128 * 1024;

    // The hint shown where files are attached; also what a refusal says.
    static QString limitsDescription();

    // The first attachment of one turn that breaks a bound (the number of files, text only
    // without NUL characters, UTF-8 bytes per file and in total), with the rule it broke.
    static std::optional<AttachmentError> violation(const QList<WireAttachment>& attachments);
    static bool withinLimits(const QList<WireAttachment>& attachments) {
        return !violation(attachments);
    }

    // The user content of a turn: the message, then each attachment marked as untrusted data.
    static QString userContent(const QString& text, const QList<WireAttachment>& attachments);
};

} // namespace kestrolan
