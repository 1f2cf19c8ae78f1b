#pragma once

#include "command.h"
#include "storage/encrypted_local_storage.h"

#include <QCommandLineParser>
#include <QCoroTask>
#include <QStringList>
#include <QUuid>
#include <optional>
#include <variant>

namespace kestrolan {
struct Account;
}

namespace kestrolan::cli {

class ServiceConnection;

// `kestrolan-cli local status|forget|import-legacy`: the signed-in account's encrypted local
// data as a whole.
class LocalCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;

    // The signed-in account's sealed data in the default folder, keyed from the keyring, as the
    // desktop app opens it: the account's id comes from the service. Throws ClientError when
    // not signed in and LocalPrivacyError(locked) when the service names no account.
    static QCoro::Task<EncryptedLocalStorage> openStorage(ServiceConnection* connection);
    // The same for an account already fetched.
    static EncryptedLocalStorage storageOf(ServiceConnection& connection, const Account& account);

    // The id argument `text` of `command` ("projects show"); nothing after a usage error naming
    // `what` ("a project id"), which is reported.
    static std::optional<QUuid> idArgument(const Console& console, const QString& command,
                                           const QString& text, const QString& what);

    // Parses a subcommand's arguments with `parser`, which holds its options (-h/--help is
    // added here), wanting exactly `positional` positional arguments named in `what`. Returns
    // them, or the exit code when the command must stop (after its help or a usage error).
    static std::variant<QStringList, int> parse(const Console& console, QCommandLineParser& parser,
                                                const QString& command, const QString& help,
                                                const QStringList& arguments, qsizetype positional,
                                                const QString& what = {});

private:
    QCoro::Task<int> status(QStringList arguments);
    QCoro::Task<int> forget(QStringList arguments);
    QCoro::Task<int> importLegacy(QStringList arguments);
};

} // namespace kestrolan::cli
