#pragma once

#include "tools/wire_attachment.h"

#include <QList>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// What a turn was sent with besides the user's text: the chat's project, its agent and the text
// files attached to the message. Kept per turn so that a later change of project or agent does
// not rewrite what an earlier turn was answered under.
struct TurnContext {
    // A project or agent as it stood when the turn was sent.
    struct Instructions {
        QUuid id;
        QString name;
        QString text;
        bool operator==(const Instructions&) const = default;
    };

    std::optional<Instructions> project;
    std::optional<Instructions> agent;
    QList<WireAttachment> attachments;

    bool operator==(const TurnContext&) const = default;

    // Throws the AttachmentError of the first attachment that breaks the text-attachment limits.
    void validate() const;

    // The user message as the model receives it: `text`, then each attachment labelled as
    // untrusted data.
    QString userContent(const QString& text) const;

    // The project's instructions, then the agent's, each only when it says something; the
    // session adds its own safety and web-tool text around them.
    QString instructions() const;
};

} // namespace kestrolan
