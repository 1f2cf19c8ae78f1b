#pragma once

#include <QCoroTask>
#include <QString>
#include <functional>

namespace kestrolan {

// The question asked before an unsaved conversation is dropped. The model words it; a window
// shows it as a modal alert and answers with the button chosen.
struct DiscardQuestion {
    enum class Answer { saveChat, discard, cancel };

    static QString titleText() { return QStringLiteral("Keep this chat?"); }
    static QString streamingText() {
        return QStringLiteral("Stop the response before saving, or discard this chat.");
    }
    static QString unsavedText() {
        return QStringLiteral("Save this conversation to your account before leaving. Unsent "
                              "text is not saved.");
    }
    static QString buttonText(Answer answer) {
        switch (answer) {
        case Answer::saveChat:
            return QStringLiteral("Save chat");
        case Answer::discard:
            return QStringLiteral("Discard");
        case Answer::cancel:
            break;
        }
        return QStringLiteral("Cancel");
    }

    QString title;
    QString text;
    // "Save chat", "Discard", "Cancel" when saving is possible; else "Cancel", "Discard".
    QList<Answer> buttons;
};

using DiscardPrompt = std::function<QCoro::Task<DiscardQuestion::Answer>(DiscardQuestion)>;

} // namespace kestrolan
