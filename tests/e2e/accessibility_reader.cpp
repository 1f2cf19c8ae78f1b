#include "accessibility_reader.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QDBusVariant>

namespace kestrolan::test {

namespace {

constexpr auto accessibleInterface = "org.a11y.atspi.Accessible";
// Bits of the AT-SPI state set.
constexpr quint64 enabledState = 1ull << 8;
constexpr quint64 showingState = 1ull << 25;

QDBusConnection connectToAccessibilityBus() {
    auto session = QDBusConnection::sessionBus();
    // A screen reader switches accessibility on for the whole session; toolkits read this.
    auto enable = QDBusMessage::createMethodCall(
        QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    enable << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled")
           << QVariant::fromValue(QDBusVariant(true));
    if (const auto reply = session.call(enable); reply.type() == QDBusMessage::ErrorMessage)
        qFatal("the AT-SPI bus is not available: %s", qPrintable(reply.errorMessage()));
    const QDBusReply<QString> address = session.call(QDBusMessage::createMethodCall(
        QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
        QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress")));
    if (!address.isValid())
        qFatal("no AT-SPI bus address: %s", qPrintable(address.error().message()));
    auto bus = QDBusConnection::connectToBus(address.value(), QStringLiteral("kestrolan-atspi"));
    if (!bus.isConnected())
        qFatal("cannot connect to the AT-SPI bus");
    return bus;
}

QDBusMessage message(const AccessibleNode& node, const char* interface, const char* method,
                     const QVariantList& arguments = {}) {
    auto message = QDBusMessage::createMethodCall(
        node.service, node.path, QLatin1StringView(interface), QLatin1StringView(method));
    message.setArguments(arguments);
    return message;
}

QDBusMessage call(const QDBusConnection& bus, const AccessibleNode& node, const char* interface,
                  const char* method, const QVariantList& arguments = {}) {
    return bus.call(message(node, interface, method, arguments));
}

QDBusMessage propertyMessage(const AccessibleNode& node, const char* interface, const char* name) {
    return message(node, "org.freedesktop.DBus.Properties", "Get",
                   {QString::fromLatin1(interface), QString::fromLatin1(name)});
}

QVariant propertyValue(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return {};
    return reply.arguments().constFirst().value<QDBusVariant>().variant();
}

QVariant property(const QDBusConnection& bus, const AccessibleNode& node, const char* interface,
                  const char* name) {
    return propertyValue(bus.call(propertyMessage(node, interface, name)));
}

QString firstString(const QDBusMessage& reply) {
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()
               ? reply.arguments().constFirst().toString()
               : QString();
}

QList<AccessibleNode> childrenIn(const QDBusMessage& reply) {
    QList<AccessibleNode> result;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return result;
    const auto argument = reply.arguments().constFirst().value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        AccessibleNode child;
        QDBusObjectPath path;
        argument.beginStructure();
        argument >> child.service >> path;
        argument.endStructure();
        child.path = path.path();
        result.append(child);
    }
    argument.endArray();
    return result;
}

quint64 statesIn(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    const auto words = qdbus_cast<QList<uint>>(reply.arguments().constFirst());
    return words.size() < 2 ? 0 : quint64(words[0]) | quint64(words[1]) << 32;
}

} // namespace

AccessibilityReader::AccessibilityReader()
    : m_bus(connectToAccessibilityBus()) {}

AccessibilityReader::~AccessibilityReader() {
    QDBusConnection::disconnectFromBus(QStringLiteral("kestrolan-atspi"));
}

std::optional<AccessibleNode> AccessibilityReader::application(qint64 pid) const {
    const AccessibleNode registry{QStringLiteral("org.a11y.atspi.Registry"),
                                  QStringLiteral("/org/a11y/atspi/accessible/root")};
    if (const auto known = m_applications.constFind(pid); known != m_applications.cend())
        return *known;
    for (const auto& app : children(registry)) {
        const QDBusReply<uint> owner =
            m_bus.interface()->call(QStringLiteral("GetConnectionUnixProcessID"), app.service);
        if (owner.isValid() && owner.value() == pid)
            return m_applications[pid] = app;
    }
    return std::nullopt;
}

QString AccessibilityReader::name(const AccessibleNode& node) const {
    return property(m_bus, node, accessibleInterface, "Name").toString();
}

QString AccessibilityReader::roleName(const AccessibleNode& node) const {
    return firstString(call(m_bus, node, accessibleInterface, "GetRoleName"));
}

QList<AccessibleNode> AccessibilityReader::children(const AccessibleNode& node) const {
    return childrenIn(call(m_bus, node, accessibleInterface, "GetChildren"));
}

QString AccessibilityReader::text(const AccessibleNode& node) const {
    const int count = property(m_bus, node, "org.a11y.atspi.Text", "CharacterCount").toInt();
    return firstString(call(m_bus, node, "org.a11y.atspi.Text", "GetText", {0, count}));
}

quint64 AccessibilityReader::states(const AccessibleNode& node) const {
    return statesIn(call(m_bus, node, accessibleInterface, "GetState"));
}

bool AccessibilityReader::isShowing(const AccessibleNode& node) const {
    return states(node) & showingState;
}

bool AccessibilityReader::isEnabled(const AccessibleNode& node) const {
    return states(node) & enabledState;
}

bool AccessibilityReader::grabFocus(const AccessibleNode& node) const {
    const auto reply = call(m_bus, node, "org.a11y.atspi.Component", "GrabFocus");
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().toBool();
}

QList<AccessibilityReader::Seen> AccessibilityReader::showing(const AccessibleNode& root) const {
    struct Entry {
        Seen seen;
        QList<qsizetype> children;
    };
    QList<Entry> entries;
    QList<qsizetype> top;
    // (index of the parent in `entries`, or -1 for `root`; the object)
    QList<std::pair<qsizetype, AccessibleNode>> parents{{-1, root}};
    for (int depth = 0; !parents.isEmpty() && depth < 64; ++depth) {
        QList<QDBusPendingCall> childCalls;
        for (const auto& parent : parents)
            childCalls.append(
                m_bus.asyncCall(message(parent.second, accessibleInterface, "GetChildren")));
        QList<std::pair<qsizetype, AccessibleNode>> level;
        for (qsizetype i = 0; i < parents.size(); ++i) {
            childCalls[i].waitForFinished();
            for (const auto& child : childrenIn(childCalls[i].reply()))
                level.append({parents[i].first, child});
        }
        QList<QDBusPendingCall> calls;
        for (const auto& [parent, node] : level) {
            calls.append(m_bus.asyncCall(message(node, accessibleInterface, "GetState")));
            calls.append(m_bus.asyncCall(propertyMessage(node, accessibleInterface, "Name")));
            calls.append(m_bus.asyncCall(message(node, accessibleInterface, "GetRoleName")));
        }
        parents.clear();
        for (qsizetype i = 0; i < level.size(); ++i) {
            for (qsizetype j = 3 * i; j < 3 * i + 3; ++j)
                calls[j].waitForFinished();
            if (!(statesIn(calls[3 * i].reply()) & showingState))
                continue;
            entries.append(
                {Seen{level[i].second, propertyValue(calls[3 * i + 1].reply()).toString(),
                      firstString(calls[3 * i + 2].reply()), depth},
                 {}});
            const qsizetype index = entries.size() - 1;
            (level[i].first < 0 ? top : entries[level[i].first].children).append(index);
            parents.append({index, level[i].second});
        }
    }
    QList<Seen> result;
    result.reserve(entries.size());
    const std::function<void(const QList<qsizetype>&)> visit =
        [&](const QList<qsizetype>& indexes) {
            for (const qsizetype index : indexes) {
                result.append(entries[index].seen);
                visit(entries[index].children);
            }
        };
    visit(top);
    return result;
}

std::optional<AccessibleNode>
AccessibilityReader::find(const AccessibleNode& root,
                          const std::function<bool(const Seen&)>& match) const {
    for (const auto& seen : showing(root)) {
        if (match(seen))
            return seen.node;
    }
    return std::nullopt;
}

std::optional<AccessibleNode> AccessibilityReader::findNamed(const AccessibleNode& root,
                                                             const QString& wanted,
                                                             const QString& role) const {
    return find(root, [&](const Seen& seen) {
        return seen.name == wanted && (role.isEmpty() || seen.role == role);
    });
}

QStringList AccessibilityReader::namesWithRole(const AccessibleNode& root,
                                               const QString& role) const {
    QStringList names;
    for (const auto& seen : showing(root)) {
        if (seen.role == role)
            names.append(seen.name);
    }
    return names;
}

} // namespace kestrolan::test
