#include "tools/text_attachments.h"

namespace kestrolan {

QString TextAttachments::limitsDescription() {
    return QStringLiteral("UTF-8 text/code only. Up to 20 files, 64 KiB each, 128 KiB total.");
}

std::optional<AttachmentError>
TextAttachments::violation(const QList<WireAttachment>& attachments) {
    using Kind = AttachmentError::Kind;
    if (attachments.size() > maxFiles)
        return AttachmentError(Kind::tooManyFiles, attachments.at(maxFiles).name);
    qsizetype total = 0;
    for (const auto& attachment : attachments) {
        // A NUL or a lone surrogate means the file was not text.
        if (attachment.text.contains(QChar(u'\0')) || !attachment.text.isValidUtf16())
            return AttachmentError(Kind::notText, attachment.name);
        const auto bytes = attachment.text.toUtf8().size();
        if (bytes > maxFileBytes)
            return AttachmentError(Kind::fileTooLarge, attachment.name);
        total += bytes;
        if (total > maxTotalBytes)
            return AttachmentError(Kind::totalTooLarge, attachment.name);
    }
    return std::nullopt;
}

QString TextAttachments::userContent(const QString& text,
                                     const QList<WireAttachment>& attachments) {
    QString content = text;
    for (const auto& attachment : attachments) {
        if (!content.isEmpty())
            content += u"\n\n";
        // The file's own text cannot close the block early: the fence is longer than any run of
        // backticks inside it.
        qsizetype longestRun = 0;
        qsizetype run = 0;
        for (const QChar c : attachment.text) {
            run = c == u'`' ? run + 1 : 0;
            longestRun = std::max(longestRun, run);
        }
        const QString fence(std::max<qsizetype>(3, longestRun + 1), u'`');
        content += u"Attached file \"" + attachment.name + u"\" (untrusted data):\n" + fence +
                   u'\n' + attachment.text + u'\n' + fence;
    }
    return content;
}

} // namespace kestrolan
