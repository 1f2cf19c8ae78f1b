#pragma once

#include "platform/defaults.h"

#include <QSettings>
#include <memory>

namespace kestrolan {

// Defaults over QSettings: ~/.config/Kestrolan/Kestrolan.conf, or a given file in tests.
class SettingsDefaults final : public Defaults {
public:
    SettingsDefaults();
    explicit SettingsDefaults(const QString& fileName);

    std::optional<QVariant> value(const QString& key) const override;
    void setValue(const QString& key, const QVariant& value) override;
    void remove(const QString& key) override;

private:
    std::unique_ptr<QSettings> m_settings;
};

} // namespace kestrolan
