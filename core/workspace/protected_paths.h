#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

namespace kestrolan {

// Directories the model may never reach, whatever the workspace: the app's own data and
// settings and the user's secrets. They are recognised by (device, inode), so a symbolic link or
// a bind mount that leads to one is caught too.
class ProtectedPaths {
public:
    struct Identity {
        quint64 device = 0;
        quint64 inode = 0;
        bool operator==(const Identity&) const = default;
    };

    ProtectedPaths() = default;
    explicit ProtectedPaths(QList<QString> directories);
    // $XDG_DATA_HOME/Kestrolan, $XDG_CONFIG_HOME/Kestrolan, the keyrings folder and ~/.ssh.
    static ProtectedPaths forUser();

    const QList<QString>& directories() const { return m_directories; }
    // The identities of those directories that exist now; one created later is still caught.
    QList<Identity> identities() const;

private:
    QList<QString> m_directories;
};

} // namespace kestrolan
