#include "error.h"

namespace kestrolan {

Error::Error(QString description)
    : m_description(std::move(description))
    , m_utf8(m_description.toUtf8()) {}

CancellationError::CancellationError()
    : Error(QStringLiteral("The operation was cancelled.")) {}

} // namespace kestrolan
