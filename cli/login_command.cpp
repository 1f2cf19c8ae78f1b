#include "login_command.h"

#include "account/desktop_auth.h"
#include "account/keychain_token_store.h"
#include "command_line.h"
#include "error.h"
#include "platform/instance_socket.h"
#include "platform/login_socket.h"
#include "platform/system_keychain_access.h"
#include "secret_store_probe.h"
#include "service_connection.h"
#include "support/wait_list.h"

#include <QProcess>
#include <QSocketNotifier>
#include <QSysInfo>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

const QString help = QStringLiteral(
    "Usage: kestrolan-cli login [--force] [--no-browser] [--callback URL]\n"
    "\n"
    "Signs in through the browser. The sign-in address is printed alone on standard output and\n"
    "opened in the default browser. After signing in there, the browser is sent to an address\n"
    "beginning with kestrolan://auth/callback. When the desktop app is installed as the handler\n"
    "of that address, it hands the callback of this sign-in back here and nothing needs to be\n"
    "copied; otherwise give the address as one line on standard input, or with --callback.\n"
    "The token is kept in the keyring and shared with the desktop app.\n"
    "\n"
    "First the keyring is checked: when it cannot store the token (no Secret Service running,\n"
    "or the keyring is locked) nothing else happens and the exit status is 1. When already\n"
    "signed in, the account is named and no new sign-in starts unless --force is given.\n"
    "\n"
    "Options:\n"
    "  --force         sign in again even when already signed in\n"
    "  --no-browser    only print the sign-in address\n"
    "  --callback URL  the callback address, instead of reading it from standard input\n"
    "  -h, --help      show this help");

// The callback address, from whichever comes first: a line of standard input, or the browser's
// callback that `kestrolan` hands to the socket of this attempt. Standard input at its end
// leaves the socket to answer while a browser was opened for this attempt; otherwise (nothing
// will call back on its own) it is the end of the wait.
class CallbackWait {
public:
    CallbackWait(const QUrl& authorize, bool browserOpened)
        : m_stdin(STDIN_FILENO, QSocketNotifier::Read)
        , m_browserOpened(browserOpened) {
        if (const auto path = LoginSocket::pathFor(authorize)) {
            m_socket = std::make_unique<InstanceSocket>(*path);
            if (m_socket->listen())
                QObject::connect(
                    m_socket.get(), &InstanceSocket::urlReceived, &m_context,
                    [this](const QUrl& url) { answer(url.toString(QUrl::FullyEncoded)); });
            else
                m_socket.reset();
        }
        QObject::connect(&m_stdin, &QSocketNotifier::activated, &m_context,
                         [this] { readInput(); });
    }

    bool hasSocket() const { return m_socket != nullptr; }
    const std::optional<QString>& answer() const { return m_answer; }
    WaitList& waiters() { return m_waiters; }

private:
    void readInput() {
        char buffer[4096];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof(buffer));
        if (n > 0) {
            m_line.append(buffer, n);
            if (const auto end = m_line.indexOf('\n'); end >= 0)
                answer(QString::fromUtf8(m_line.left(end)));
            return;
        }
        m_stdin.setEnabled(false);
        if (!m_line.isEmpty() || !m_socket || !m_browserOpened)
            answer(QString::fromUtf8(m_line));
    }

    void answer(const QString& text) {
        if (m_answer)
            return;
        m_answer = text;
        m_stdin.setEnabled(false);
        m_waiters.resumeAll();
    }

    QObject m_context;
    QSocketNotifier m_stdin;
    std::unique_ptr<InstanceSocket> m_socket;
    bool m_browserOpened;
    QByteArray m_line;
    std::optional<QString> m_answer;
    WaitList m_waiters;
};

// What to say about the token already stored: the account it belongs to when the service can
// tell.
QCoro::Task<QString> signedInAs(ServiceConnection* connection) {
    try {
        const Account account = co_await connection->client().account();
        co_return u"Already signed in as " + account.email + u'.';
    } catch (const Error& error) {
        co_return u"Already signed in (the account could not be loaded: " + error.description() +
            u").";
    }
}

bool openInBrowser(const QUrl& url) {
    return QProcess::startDetached(QStringLiteral("xdg-open"), {url.toString(QUrl::FullyEncoded)});
}

} // namespace

QString LoginCommand::name() const {
    return QStringLiteral("login");
}

QString LoginCommand::summary() const {
    return QStringLiteral("Sign in through the browser");
}

QCoro::Task<int> LoginCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption noBrowser(QStringLiteral("no-browser"),
                                       QStringLiteral("Only print the sign-in address."));
    const QCommandLineOption callback(
        QStringLiteral("callback"), QStringLiteral("The callback address."), QStringLiteral("URL"));
    const QCommandLineOption force(QStringLiteral("force"),
                                   QStringLiteral("Sign in again when already signed in."));
    parser.addOptions({noBrowser, callback, force});
    if (const auto stop = parseCommandLine(console(), parser, name(), help, arguments))
        co_return *stop;

    try {
        ServiceConnection connection;
        const auto probe = co_await SecretStoreProbe::run(std::make_shared<SystemKeychainAccess>());
        if (probe.state != SecretStoreProbe::State::available) {
            console().err(SecretStoreProbe::explanation(probe));
            co_return exitFailure;
        }
        if (!parser.isSet(force)) {
            const auto stored = co_await connection.tokens()->read();
            if (stored) {
                const auto signedIn = co_await signedInAs(&connection);
                // A token the service refused is gone now: sign in as if there had been none.
                if (!connection.wasSignedOut()) {
                    console().out(signedIn);
                    console().err(
                        QStringLiteral("Run \"kestrolan-cli login --force\" to sign in again, or "
                                       "\"kestrolan-cli logout\" to sign out."));
                    co_return exitSuccess;
                }
            }
        }

        DesktopAuth auth(connection.client(), connection.tokens());
        const QUrl authorize = auth.beginSignIn();
        console().out(authorize.toString(QUrl::FullyEncoded));
        if (!parser.isSet(noBrowser) && !openInBrowser(authorize))
            console().err(QStringLiteral(
                "The browser could not be opened. Open the address above to sign in."));

        std::optional<QString> answer;
        if (parser.isSet(callback)) {
            answer = parser.value(callback);
        } else {
            CallbackWait wait(authorize, !parser.isSet(noBrowser));
            console().err(wait.hasSocket()
                              ? QStringLiteral("Waiting for the browser. If it does not come "
                                               "back here, paste the address beginning with "
                                               "kestrolan://auth/callback:")
                              : QStringLiteral("After signing in, paste the address beginning "
                                               "with kestrolan://auth/callback here:"));
            while (!wait.answer())
                co_await wait.waiters().next();
            answer = wait.answer();
        }
        const QString text = answer.value_or(QString()).trimmed();
        if (text.isEmpty()) {
            console().err(QStringLiteral("No callback address was given. Start sign-in again."));
            co_return exitFailure;
        }

        co_await auth.handleCallback(QUrl(text), QSysInfo::machineHostName());
        if (!auth.isSignedIn()) {
            console().err(
                auth.errorMessage().value_or(QStringLiteral("Sign-in did not complete.")));
            co_return exitFailure;
        }
        const auto identity = auth.signedInAccount();
        console().out(u"Signed in as " + (identity ? identity->email : QString()));
        co_return exitSuccess;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception());
    }
}

} // namespace kestrolan::cli
