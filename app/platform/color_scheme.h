#pragma once

#include <QDBusVariant>
#include <QObject>
#include <QPalette>

namespace kestrolan {

// Light or dark, as the desktop prefers. Qt 6.4 has no colour-scheme hint, so the
// xdg-desktop-portal setting org.freedesktop.appearance color-scheme is read (1 means dark);
// without a portal the style's own palette decides by its window lightness.
class ColorScheme : public QObject {
    Q_OBJECT

public:
    enum class Scheme { light, dark };

    explicit ColorScheme(QObject* parent = nullptr);

    // Asks the portal without blocking and follows its later changes; applies the Fusion
    // palette of the answer to the application.
    void start();
    Scheme scheme() const { return m_scheme; }

    // The portal's value: 1 prefers dark, 2 prefers light, 0 has no preference.
    static Scheme fromPortal(uint value, const QPalette& fallback);
    static QPalette palette(Scheme scheme);

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void portalSettingChanged(const QString& group, const QString& key, const QDBusVariant& value);

private:
    void apply(Scheme scheme);

    Scheme m_scheme = Scheme::light;
};

} // namespace kestrolan
