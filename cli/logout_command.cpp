#include "logout_command.h"

#include "account/desktop_auth.h"
#include "account/keychain_token_store.h"
#include "command_line.h"
#include "service_connection.h"

namespace kestrolan::cli {
namespace {

const QString help = QStringLiteral(
    "Usage: kestrolan-cli logout\n"
    "\n"
    "Signs out: the service revokes the token and it is removed from the keyring. When the\n"
    "service cannot be reached the token is removed all the same, the error is shown and the\n"
    "exit status is 1. Without a sign-in it says \"Not signed in.\" and exits with 0.\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help");

} // namespace

QString LogoutCommand::name() const {
    return QStringLiteral("logout");
}

QString LogoutCommand::summary() const {
    return QStringLiteral("Sign out and forget the token");
}

QCoro::Task<int> LogoutCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    if (const auto stop = parseCommandLine(console(), parser, name(), help, arguments))
        co_return *stop;

    try {
        ServiceConnection connection;
        const auto stored = co_await connection.tokens()->read();
        if (!stored) {
            console().out(QStringLiteral("Not signed in."));
            co_return exitSuccess;
        }
        DesktopAuth auth(connection.client(), connection.tokens());
        co_await auth.signOut();
        if (const auto failure = auth.errorMessage()) {
            console().err(*failure);
            co_return exitFailure;
        }
        console().out(QStringLiteral("Signed out."));
        co_return exitSuccess;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception());
    }
}

} // namespace kestrolan::cli
