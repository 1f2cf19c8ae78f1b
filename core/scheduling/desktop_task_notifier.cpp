#include "scheduling/desktop_task_notifier.h"

#include "error.h"

#include <QCoroSignal>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>
#include <memory>

namespace kestrolan {
namespace {

const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString defaultAction = QStringLiteral("default");

} // namespace

DesktopTaskNotifier::DesktopTaskNotifier(QDBusConnection bus, QObject* parent)
    : QObject(parent)
    , m_bus(std::move(bus)) {
    m_bus.connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                  SLOT(actionInvoked(uint, QString)));
    m_bus.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                  SLOT(notificationClosed(uint, uint)));
}

QCoro::Task<void> DesktopTaskNotifier::notify(QString taskName, QString body,
                                              std::optional<QUuid> chatID) {
    QDBusMessage message =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    const QStringList actions =
        chatID ? QStringList{defaultAction, QStringLiteral("Open Chat")} : QStringList();
    // Servers may read the body as markup: the model's text is shown as it is.
    message << QStringLiteral("Kestrolan") << uint(0) << QStringLiteral("kestrolan") << taskName
            << body.toHtmlEscaped() << actions << QVariantMap() << int(-1);
    const QDBusPendingCall call = m_bus.asyncCall(message);
    // Without any bus the call is finished already and its watcher would never fire.
    if (!call.isFinished()) {
        auto watcher = std::make_unique<QDBusPendingCallWatcher>(call);
        co_await qCoro(watcher.get(), &QDBusPendingCallWatcher::finished);
    }
    const QDBusPendingReply<uint> reply = call;
    if (reply.isError())
        throw Error(reply.error().message().isEmpty() ? reply.error().name()
                                                      : reply.error().message());
    if (chatID)
        m_chats.insert(reply.value(), *chatID);
}

void DesktopTaskNotifier::actionInvoked(uint id, const QString& action) {
    const auto found = m_chats.constFind(id);
    if (found == m_chats.constEnd() || action != defaultAction)
        return;
    const QUuid chatID = *found;
    m_chats.erase(found);
    Q_EMIT chatOpened(chatID);
}

void DesktopTaskNotifier::notificationClosed(uint id, uint /*reason*/) {
    m_chats.remove(id);
}

} // namespace kestrolan
