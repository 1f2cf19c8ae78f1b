#pragma once

#include <QDBusConnection>
#include <QHash>
#include <QList>
#include <QRect>
#include <QString>
#include <functional>
#include <optional>

namespace kestrolan::test {

// One object in an application's accessibility tree.
struct AccessibleNode {
    QString service;
    QString path;
};

// What a screen reader sees of a running app, read over the AT-SPI bus of the current D-Bus
// session. Constructing it turns accessibility on (as starting a screen reader does), so only
// apps started afterwards expose their widgets.
class AccessibilityReader {
public:
    AccessibilityReader();
    ~AccessibilityReader();
    AccessibilityReader(const AccessibilityReader&) = delete;
    AccessibilityReader& operator=(const AccessibilityReader&) = delete;

    // The root of the app run by process `pid`, once it has registered.
    std::optional<AccessibleNode> application(qint64 pid) const;

    QString name(const AccessibleNode& node) const;
    QString roleName(const AccessibleNode& node) const;
    QList<AccessibleNode> children(const AccessibleNode& node) const;
    // The text of a label, field or document; empty for objects without text.
    QString text(const AccessibleNode& node) const;
    bool isShowing(const AccessibleNode& node) const;
    bool isEnabled(const AccessibleNode& node) const;
    // Moves the keyboard focus to the object inside its window. False when the object refuses,
    // as Qt's combo boxes do: they offer no focus action.
    bool grabFocus(const AccessibleNode& node) const;

    // One showing object with what a walk reads of it.
    struct Seen {
        AccessibleNode node;
        QString name;
        QString role;
        int depth = 0;
    };
    // Every showing object under `root`, depth first. The tree is read a level at a time with
    // the calls of a level in flight together, so a walk costs a few round trips per level
    // rather than several per object.
    QList<Seen> showing(const AccessibleNode& root) const;

    // The first showing object under `root`, depth first, that `match` accepts.
    std::optional<AccessibleNode> find(const AccessibleNode& root,
                                       const std::function<bool(const Seen&)>& match) const;
    // The first showing object under `root` with this accessible name (and role, when given).
    std::optional<AccessibleNode> findNamed(const AccessibleNode& root, const QString& name,
                                            const QString& role = {}) const;
    // The names of every showing object under `root` with `role`, in tree order.
    QStringList namesWithRole(const AccessibleNode& root, const QString& role) const;

private:
    quint64 states(const AccessibleNode& node) const;

    QDBusConnection m_bus;
    mutable QHash<qint64, AccessibleNode> m_applications;
};

} // namespace kestrolan::test
