#include "workspace/protected_paths.h"

#include <QDir>
#include <QFile>
#include <sys/stat.h>

namespace kestrolan {

namespace {

QString baseDirectory(const char* variable, const QString& fallback) {
    const QString value = qEnvironmentVariable(variable);
    // Relative values are invalid and ignored.
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return value;
    return QDir::homePath() + fallback;
}

} // namespace

ProtectedPaths::ProtectedPaths(QList<QString> directories)
    : m_directories(std::move(directories)) {}

ProtectedPaths ProtectedPaths::forUser() {
    const QString data = baseDirectory("XDG_DATA_HOME", QStringLiteral("/.local/share"));
    const QString config = baseDirectory("XDG_CONFIG_HOME", QStringLiteral("/.config"));
    const QString home = QDir::homePath();
    return ProtectedPaths({
        data + u"/Kestrolan",
        config + u"/Kestrolan",
        // gnome-keyring follows $XDG_DATA_HOME; older setups keep the default place.
        data + u"/keyrings",
        home + u"/.local/share/keyrings",
        home + u"/.ssh",
        home + u"/.gnupg",
    });
}

QList<ProtectedPaths::Identity> ProtectedPaths::identities() const {
    QList<Identity> result;
    for (const QString& directory : m_directories) {
        struct stat status {};
        if (::stat(QFile::encodeName(directory).constData(), &status) != 0 ||
            !S_ISDIR(status.st_mode))
            continue;
        const Identity identity{quint64(status.st_dev), quint64(status.st_ino)};
        if (!result.contains(identity))
            result.append(identity);
    }
    return result;
}

} // namespace kestrolan
