#pragma once

#include "scheduling/task_notifier.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>

namespace kestrolan {

// Notifications through org.freedesktop.Notifications on the session bus. Choosing a
// notification (its default action) emits chatOpened with the run's chat, for the app to show.
class DesktopTaskNotifier : public QObject, public TaskNotifier {
    Q_OBJECT

public:
    static constexpr auto service = QLatin1StringView("org.freedesktop.Notifications");

    explicit DesktopTaskNotifier(QDBusConnection bus = QDBusConnection::sessionBus(),
                                 QObject* parent = nullptr);

    // Throws Error with the bus's message when the notification service does not answer.
    QCoro::Task<void> notify(QString taskName, QString body, std::optional<QUuid> chatID) override;

Q_SIGNALS:
    void chatOpened(QUuid chatID);

private Q_SLOTS:
    void actionInvoked(uint id, const QString& action);
    void notificationClosed(uint id, uint reason);

private:
    QDBusConnection m_bus;
    // Notifications still on screen that open a chat.
    QHash<uint, QUuid> m_chats;
};

} // namespace kestrolan
