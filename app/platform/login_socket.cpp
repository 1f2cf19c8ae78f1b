#include "platform/login_socket.h"

#include <QRegularExpression>
#include <QStandardPaths>
#include <QUrlQuery>

namespace kestrolan {

std::optional<QString> LoginSocket::pathFor(const QUrl& url) {
    const QString state = QUrlQuery(url).queryItemValue(QStringLiteral("state"));
    // The state is base64url text; anything else never names a file.
    static const QRegularExpression form(QStringLiteral("^[A-Za-z0-9_-]{16,}$"));
    if (!form.match(state).hasMatch())
        return std::nullopt;
    // Sixteen characters (96 random bits) keep the path inside the 108 bytes a socket may have.
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) +
           QStringLiteral("/kestrolan-login-") + state.left(16) + QStringLiteral(".sock");
}

} // namespace kestrolan
