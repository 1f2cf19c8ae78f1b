#pragma once

#include <QString>
#include <QVariant>
#include <optional>

namespace kestrolan {

// The user's preferences, keyed exactly as the app names them ("baseURL", "desktop.shortcut").
class Defaults {
public:
    virtual ~Defaults() = default;

    virtual std::optional<QVariant> value(const QString& key) const = 0;
    virtual void setValue(const QString& key, const QVariant& value) = 0;
    virtual void remove(const QString& key) = 0;

    std::optional<QString> string(const QString& key) const;
};

} // namespace kestrolan
