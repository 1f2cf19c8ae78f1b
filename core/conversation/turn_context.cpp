#include "conversation/turn_context.h"

#include "tools/text_attachments.h"

#include <QStringList>

namespace kestrolan {

void TurnContext::validate() const {
    if (auto violation = TextAttachments::violation(attachments))
        throw *violation;
}

QString TurnContext::userContent(const QString& text) const {
    return TextAttachments::userContent(text, attachments);
}

QString TurnContext::instructions() const {
    QStringList parts;
    for (const auto* source : {&project, &agent}) {
        if (*source && !(*source)->text.trimmed().isEmpty())
            parts.append((*source)->text.trimmed());
    }
    return parts.join(u"\n\n");
}

} // namespace kestrolan
