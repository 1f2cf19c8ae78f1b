#include "tools/attachment_error.h"

#include "tools/text_attachments.h"

namespace kestrolan {

AttachmentError::AttachmentError(Kind kind, QString fileName)
    : Error(describe(kind, fileName))
    , m_kind(kind)
    , m_fileName(std::move(fileName)) {}

QString AttachmentError::describe(Kind kind, const QString& fileName) {
    QString rule;
    switch (kind) {
    case Kind::tooManyFiles:
        rule = QStringLiteral("“%1” is one file too many.");
        break;
    case Kind::notRegularFile:
        rule = QStringLiteral("“%1” is not a regular file.");
        break;
    case Kind::unreadable:
        rule = QStringLiteral("“%1” could not be read.");
        break;
    case Kind::notText:
        rule = QStringLiteral("“%1” is not UTF-8 text or code.");
        break;
    case Kind::fileTooLarge:
        rule = QStringLiteral("“%1” is larger than 64 KiB.");
        break;
    case Kind::totalTooLarge:
        rule = QStringLiteral("“%1” takes the attachments past 128 KiB in total.");
        break;
    }
    return rule.arg(fileName) + u' ' + TextAttachments::limitsDescription();
}

} // namespace kestrolan
