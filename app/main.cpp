#include "model/application_model.h"
#include "platform/instance_socket.h"
#include "platform/login_socket.h"
#include "platform/stall_probe.h"
#include "storage/keychain_local_key_store.h"
#include "windows/application_delegate.h"

#include <QApplication>
#include <QUrl>
#include <optional>

using namespace kestrolan;

namespace {

// `kestrolan kestrolan://auth/callback?...`, as the desktop's URL handler starts it.
std::optional<QUrl> urlArgument(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const QUrl url = QUrl::fromEncoded(QByteArray(argv[i]), QUrl::StrictMode);
        if (url.isValid() && url.scheme() == QLatin1StringView("kestrolan"))
            return url;
    }
    return std::nullopt;
}

} // namespace

int main(int argc, char** argv) {
    // Hand over before building a QApplication: the second process exits in a few ms.
    const auto url = urlArgument(argc, argv);
    const QByteArray message =
        url ? InstanceSocket::openMessage(*url) : InstanceSocket::activateMessage();
    if (url) {
        // A waiting `kestrolan-cli login` takes the callbacks of its own attempt.
        if (const auto login = LoginSocket::pathFor(*url);
            login && InstanceSocket::send(*login, message))
            return 0;
    }
    const QString path = InstanceSocket::defaultPath();
    if (InstanceSocket::send(path, message))
        return 0;

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Kestrolan"));
    QApplication::setApplicationVersion(QStringLiteral(KESTROLAN_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("kestrolan"));
    QApplication::setStyle(QStringLiteral("Fusion"));
    // The app stays running with its windows closed; starting it again shows the window.
    QApplication::setQuitOnLastWindowClosed(false);
    // Benchmarks only: event-loop stalls sampled from the start.
    const auto stallProbe = StallProbe::fromEnvironment();

    InstanceSocket socket(path);
    if (!socket.listen()) {
        // Another instance started at the same moment and won the socket.
        if (InstanceSocket::send(path, message))
            return 0;
        qWarning("kestrolan: the instance socket %s could not be opened; running without it",
                 qPrintable(path));
    }
    ApplicationModel::Parts parts;
    parts.localKeys = std::make_shared<KeychainLocalKeyStore>();
    ApplicationDelegate delegate(socket, std::move(parts));
    delegate.launch();
    if (url)
        delegate.openURL(*url);
    return QApplication::exec();
}
