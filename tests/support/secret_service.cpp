#include "secret_service.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QList>
#include <QProcessEnvironment>
#include <csignal>

namespace {

constexpr auto serviceName = QLatin1StringView("org.freedesktop.secrets");
constexpr auto servicePath = QLatin1StringView("/org/freedesktop/secrets");

// The Secret Service's secret: (session, parameters, value, content type).
struct Secret {
    QDBusObjectPath session;
    QByteArray parameters;
    QByteArray value;
    QString contentType;
};

QDBusArgument& operator<<(QDBusArgument& argument, const Secret& secret) {
    argument.beginStructure();
    argument << secret.session << secret.parameters << secret.value << secret.contentType;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, Secret& secret) {
    argument.beginStructure();
    argument >> secret.session >> secret.parameters >> secret.value >> secret.contentType;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(Secret)

namespace kestrolan::test {

namespace {

QDBusMessage call(const QString& path, const QString& interface, const QString& method,
                  const QList<QVariant>& arguments = {}) {
    auto message = QDBusMessage::createMethodCall(serviceName, path, interface, method);
    message.setArguments(arguments);
    const auto reply = QDBusConnection::sessionBus().call(message, QDBus::Block, 10'000);
    if (reply.type() != QDBusMessage::ReplyMessage)
        qFatal("Secret Service call %s failed: %s", qPrintable(method),
               qPrintable(reply.errorMessage()));
    return reply;
}

} // namespace

bool SecretService::isRunning() {
    const auto* bus = QDBusConnection::sessionBus().interface();
    return bus && bus->isServiceRegistered(serviceName).value();
}

bool SecretService::isPrivate() {
    return QProcessEnvironment::systemEnvironment().value(
               QStringLiteral("KESTROLAN_SECRET_SERVICE")) == u"1" &&
           isRunning();
}

QString SecretService::defaultCollection() {
    const auto reply = call(servicePath, QStringLiteral("org.freedesktop.Secret.Service"),
                            QStringLiteral("ReadAlias"), {QStringLiteral("default")});
    return reply.arguments().value(0).value<QDBusObjectPath>().path();
}

bool SecretService::isLocked() {
    const auto reply =
        call(defaultCollection(), QStringLiteral("org.freedesktop.DBus.Properties"),
             QStringLiteral("Get"),
             {QStringLiteral("org.freedesktop.Secret.Collection"), QStringLiteral("Locked")});
    return reply.arguments().value(0).value<QDBusVariant>().variant().toBool();
}

void SecretService::lock() {
    const QList<QDBusObjectPath> objects{QDBusObjectPath(defaultCollection())};
    call(servicePath, QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("Lock"),
         {QVariant::fromValue(objects)});
}

void SecretService::unlock() {
    qDBusRegisterMetaType<Secret>();
    const auto password = QProcessEnvironment::systemEnvironment().value(
        QStringLiteral("KESTROLAN_KEYRING_PASSWORD"));
    if (password.isEmpty())
        qFatal("KESTROLAN_KEYRING_PASSWORD is not set: run under with-secret-service");
    // A plain session: the password travels unencrypted over the private test bus.
    const auto session =
        call(servicePath, QStringLiteral("org.freedesktop.Secret.Service"),
             QStringLiteral("OpenSession"),
             {QStringLiteral("plain"), QVariant::fromValue(QDBusVariant(QString()))});
    const Secret master{
        .session = session.arguments().value(1).value<QDBusObjectPath>(),
        .value = password.toUtf8(),
        .contentType = QStringLiteral("text/plain"),
    };
    call(servicePath, QStringLiteral("org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface"),
         QStringLiteral("UnlockWithMasterPassword"),
         {QVariant::fromValue(QDBusObjectPath(defaultCollection())), QVariant::fromValue(master)});
}

pid_t SecretService::daemonPid() {
    const auto* bus = QDBusConnection::sessionBus().interface();
    const auto pid = bus ? bus->servicePid(serviceName).value() : 0u;
    if (pid == 0)
        qFatal("no process owns org.freedesktop.secrets");
    return static_cast<pid_t>(pid);
}

FrozenSecretService::FrozenSecretService()
    : m_pid(SecretService::daemonPid()) {
    ::kill(m_pid, SIGSTOP);
}

FrozenSecretService::~FrozenSecretService() {
    resume();
}

void FrozenSecretService::resume() {
    if (std::exchange(m_frozen, false))
        ::kill(m_pid, SIGCONT);
}

} // namespace kestrolan::test
