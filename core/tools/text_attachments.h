#pragma once

#include "tools/wire_attachment.h"

#include <QList>
#include <QString>

namespace kestrolan {

// The bounds on text sent along with one user message, and how that text reaches the model.
struct TextAttachments {
    static constexpr qsizetype maxFiles = 20;
    static constexpr qsizetype maxFileBytes = 64 * 1024;
    static constexpr qsizetype maxTotalBytes = 128 * 1024;

    // The hint shown where files are attached; also what a refusal says.
    static QString limitsDescription();

    // True when the attachments of one turn stay within every bound: UTF-8 bytes per file and in
    // total, the number of files, and text only (no NUL character).
    static bool withinLimits(const QList<WireAttachment>& attachments);

    // The user content of a turn: the message, then each attachment marked as untrusted data.
    static QString userContent(const QString& text, const QList<WireAttachment>& attachments);
};

} // namespace kestrolan
