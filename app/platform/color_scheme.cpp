#include "platform/color_scheme.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QStyle>

namespace kestrolan {
namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString settingsInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString appearanceGroup = QStringLiteral("org.freedesktop.appearance");
const QString colorSchemeKey = QStringLiteral("color-scheme");

// Read returns the value wrapped in one variant more than the signal carries.
uint unwrap(QVariant value) {
    while (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        value = qvariant_cast<QDBusVariant>(value).variant();
    return value.toUInt();
}

} // namespace

ColorScheme::ColorScheme(QObject* parent)
    : QObject(parent) {}

ColorScheme::Scheme ColorScheme::fromPortal(uint value, const QPalette& fallback) {
    if (value == 1)
        return Scheme::dark;
    if (value == 2)
        return Scheme::light;
    return fallback.color(QPalette::Window).lightness() < 128 ? Scheme::dark : Scheme::light;
}

QPalette ColorScheme::palette(Scheme scheme) {
    QPalette palette = QApplication::style()->standardPalette();
    if (scheme == Scheme::light)
        return palette;
    const QColor window(0x2b, 0x2b, 0x2e);
    const QColor base(0x1e, 0x1e, 0x20);
    const QColor text(0xe8, 0xe8, 0xea);
    const QColor disabledText(0x80, 0x80, 0x86);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, disabledText);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3e));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::BrightText, Qt::red);
    palette.setColor(QPalette::Link, QColor(0x6c, 0xa8, 0xff));
    palette.setColor(QPalette::Highlight, QColor(0x3d, 0x7e, 0xdb));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    // Frames, separators and button outlines are drawn from these; the light ones glare.
    palette.setColor(QPalette::Light, QColor(0x4a, 0x4a, 0x50));
    palette.setColor(QPalette::Midlight, QColor(0x42, 0x42, 0x47));
    palette.setColor(QPalette::Mid, QColor(0x33, 0x33, 0x37));
    palette.setColor(QPalette::Dark, QColor(0x18, 0x18, 0x1a));
    palette.setColor(QPalette::Shadow, QColor(0x10, 0x10, 0x12));
    for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, disabledText);
    return palette;
}

void ColorScheme::start() {
    const QPalette initial = QApplication::palette();
    apply(fromPortal(0, initial));
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    bus.connect(portalService, portalPath, settingsInterface, QStringLiteral("SettingChanged"),
                this, SLOT(portalSettingChanged(QString, QString, QDBusVariant)));
    auto message = QDBusMessage::createMethodCall(portalService, portalPath, settingsInterface,
                                                  QStringLiteral("Read"));
    message << appearanceGroup << colorSchemeKey;
    const QDBusPendingCall call = bus.asyncCall(message);
    auto finish = [this, initial](const QDBusPendingCall& done) {
        const QDBusPendingReply<QVariant> reply = done;
        // No portal (ServiceUnknown): the fallback applied above stays.
        if (!reply.isError())
            apply(fromPortal(unwrap(reply.value()), initial));
    };
    // With no bus at all the call comes back finished and its watcher would never fire.
    if (call.isFinished()) {
        finish(call);
        return;
    }
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [watcher, finish](QDBusPendingCallWatcher*) {
                finish(*watcher);
                watcher->deleteLater();
            });
}

void ColorScheme::portalSettingChanged(const QString& group, const QString& key,
                                       const QDBusVariant& value) {
    if (group == appearanceGroup && key == colorSchemeKey)
        apply(fromPortal(unwrap(value.variant()), QApplication::style()->standardPalette()));
}

void ColorScheme::apply(Scheme scheme) {
    const bool differs = scheme != m_scheme;
    m_scheme = scheme;
    QApplication::setPalette(palette(scheme));
    if (differs)
        Q_EMIT changed();
}

} // namespace kestrolan
