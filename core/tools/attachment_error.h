#pragma once

#include "error.h"

namespace kestrolan {

// A file refused as a text attachment. The description names the file and the rule it broke,
// followed by the attachment limits.
class AttachmentError : public Error {
public:
    enum class Kind {
        tooManyFiles,
        notRegularFile,
        unreadable,
        notText,
        fileTooLarge,
        totalTooLarge,
    };

    AttachmentError(Kind kind, QString fileName);

    Kind kind() const { return m_kind; }
    const QString& fileName() const { return m_fileName; }

    static QString describe(Kind kind, const QString& fileName);

private:
    Kind m_kind;
    QString m_fileName;
};

} // namespace kestrolan
