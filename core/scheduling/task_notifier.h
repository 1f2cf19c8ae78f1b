#pragma once

#include <QCoroTask>
#include <QString>
#include <QUuid>
#include <optional>

namespace kestrolan {

// Tells the user that a run of a task finished.
class TaskNotifier {
public:
    virtual ~TaskNotifier() = default;

    // Posts a notification titled with the task's name, showing `body`; choosing it opens
    // `chatID` where there is one. Throws Error when no notification could be posted.
    virtual QCoro::Task<void> notify(QString taskName, QString body,
                                     std::optional<QUuid> chatID) = 0;
};

} // namespace kestrolan
