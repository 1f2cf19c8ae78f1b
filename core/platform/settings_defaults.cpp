#include "platform/settings_defaults.h"

namespace kestrolan {

SettingsDefaults::SettingsDefaults()
    : m_settings(std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope,
                                             QStringLiteral("Kestrolan"),
                                             QStringLiteral("Kestrolan"))) {}

SettingsDefaults::SettingsDefaults(const QString& fileName)
    : m_settings(std::make_unique<QSettings>(fileName, QSettings::IniFormat)) {}

std::optional<QVariant> SettingsDefaults::value(const QString& key) const {
    if (!m_settings->contains(key))
        return std::nullopt;
    return m_settings->value(key);
}

void SettingsDefaults::setValue(const QString& key, const QVariant& value) {
    m_settings->setValue(key, value);
}

void SettingsDefaults::remove(const QString& key) {
    m_settings->remove(key);
}

} // namespace kestrolan
