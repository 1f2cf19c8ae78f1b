#include "local_command.h"

#include "account/account.h"
#include "command_line.h"
#include "scheduling/task_store.h"
#include "service_connection.h"
#include "storage/agent_store.h"
#include "storage/keychain_local_key_store.h"
#include "storage/legacy_import.h"
#include "storage/local_account_context.h"
#include "storage/local_privacy_error.h"
#include "storage/project_store.h"
#include "support/uuid_text.h"

#include <QCoroFuture>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <QtConcurrent>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

const QString groupHelp = QStringLiteral(
    "Usage: kestrolan-cli local SUBCOMMAND\n"
    "\n"
    "The signed-in account's encrypted local data (projects, agents, scheduled tasks and their\n"
    "history), kept on this computer under a key in the keyring.\n"
    "\n"
    "Subcommands:\n"
    "  status          Show the account's folder, its records and the storage used\n"
    "  forget          Remove all of the account's local data and its key\n"
    "  import-legacy   Import the plaintext files of an older version from a folder\n"
    "\n"
    "Run \"kestrolan-cli local SUBCOMMAND --help\" for its options.");

const QString statusHelp = QStringLiteral(
    "Usage: kestrolan-cli local status [--json]\n"
    "\n"
    "Shows the signed-in account's local folder, each encrypted record with its size on disk,\n"
    "and how much of the 50 MiB the account may keep is used.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON: account_directory, records (name, bytes),\n"
    "               quota_used, quota, legacy_import_required\n"
    "  -h, --help   show this help");

const QString forgetHelp = QStringLiteral(
    "Usage: kestrolan-cli local forget [--yes]\n"
    "\n"
    "Removes the signed-in account's projects, agents, scheduled tasks and run history from\n"
    "this computer, with the key that seals them. Chats saved on the service stay. Asks first\n"
    "on a terminal; elsewhere --yes is needed.\n"
    "\n"
    "Options:\n"
    "  --yes        do not ask\n"
    "  -h, --help   show this help");

const QString importHelp = QStringLiteral(
    "Usage: kestrolan-cli local import-legacy DIR\n"
    "\n"
    "Imports the plaintext files of an older version (projects.json, agents.json,\n"
    "scheduled-tasks.json, task-runs.json) from DIR into the signed-in account, encrypted,\n"
    "then removes them. Everything is checked first: when one file cannot be imported,\n"
    "nothing is, and the files stay. Projects, agents and tasks already in the account keep\n"
    "their version.\n"
    "\n"
    "Options:\n"
    "  -h, --help   show this help");

struct Usage {
    QString directory;
    QString legacyFolder;
    QList<std::pair<QString, qint64>> records;
    qint64 used = 0;
    bool legacyImportRequired = false;
};

// Blocking: off the main thread.
Usage measure(const EncryptedLocalStorage& storage) {
    Usage usage;
    usage.directory = storage.accountDirectory();
    usage.legacyFolder = LegacyImport::dataFolder(storage);
    const QString suffix = EncryptedLocalStorage::recordSuffix;
    const auto entries =
        QDir(usage.directory)
            .entryInfoList({u'*' + suffix}, QDir::Files | QDir::Hidden, QDir::Name);
    for (const auto& entry : entries) {
        usage.records.append({entry.fileName().chopped(suffix.size()), entry.size()});
        usage.used += entry.size();
    }
    try {
        LegacyImport::refuseWhilePending(&storage);
    } catch (const LocalPrivacyError&) {
        usage.legacyImportRequired = true;
    }
    return usage;
}

QString grouped(qint64 count) {
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(count);
}

std::optional<QString> readLine() {
    std::string line;
    if (!std::getline(std::cin, line))
        return std::nullopt;
    return QString::fromStdString(line);
}

QString plural(qsizetype count, QStringView one, QStringView many) {
    return QString::number(count) + u' ' + (count == 1 ? one : many);
}

} // namespace

QString LocalCommand::name() const {
    return QStringLiteral("local");
}

QString LocalCommand::summary() const {
    return QStringLiteral("Show, forget or import the account's encrypted local data");
}

QCoro::Task<EncryptedLocalStorage> LocalCommand::openStorage(ServiceConnection* connection) {
    const Account account = co_await connection->client().account();
    co_return storageOf(*connection, account);
}

EncryptedLocalStorage LocalCommand::storageOf(ServiceConnection& connection,
                                              const Account& account) {
    if (!account.id)
        throw LocalPrivacyError(LocalPrivacyError::Kind::locked);
    const auto context =
        LocalAccountContext::make(connection.configuration().origin(), *account.id);
    return EncryptedLocalStorage(EncryptedLocalStorage::defaultRoot(), context,
                                 std::make_shared<KeychainLocalKeyStore>());
}

std::optional<QUuid> LocalCommand::idArgument(const Console& console, const QString& command,
                                              const QString& text, const QString& what) {
    if (const auto id = uuidFromText(text))
        return id;
    console.err(u"kestrolan-cli " + command + u": \"" + text + u"\" is not " + what +
                u"\nRun \"kestrolan-cli " + command + u" --help\" for usage.");
    return std::nullopt;
}

std::variant<QStringList, int> LocalCommand::parse(const Console& console,
                                                   QCommandLineParser& parser,
                                                   const QString& command, const QString& help,
                                                   const QStringList& arguments,
                                                   qsizetype positional, const QString& what) {
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    parser.addOption(helpOption);
    const auto usageError = [&](const QString& message) {
        console.err(u"kestrolan-cli " + command + u": " + message + u"\nRun \"kestrolan-cli " +
                    command + u" --help\" for usage.");
        return int(exitUsage);
    };
    if (!parser.parse(QStringList{QStringLiteral("kestrolan-cli")} + arguments))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption)) {
        console.out(help);
        return int(exitSuccess);
    }
    const QStringList given = parser.positionalArguments();
    if (given.size() > positional)
        return usageError(u"unexpected argument \"" + given.at(positional) + u'"');
    if (given.size() < positional)
        return usageError(u"give " + what);
    return given;
}

QCoro::Task<int> LocalCommand::run(QStringList arguments) {
    if (arguments.isEmpty()) {
        console().err(groupHelp);
        co_return exitUsage;
    }
    const QString word = arguments.first();
    if (word == u"--help" || word == u"-h") {
        console().out(groupHelp);
        co_return exitSuccess;
    }
    if (word == u"status")
        co_return co_await status(arguments.mid(1));
    if (word == u"forget")
        co_return co_await forget(arguments.mid(1));
    if (word == u"import-legacy")
        co_return co_await importLegacy(arguments.mid(1));
    console().err(u"kestrolan-cli local: unknown subcommand \"" + word + u"\"\n" + groupHelp);
    co_return exitUsage;
}

QCoro::Task<int> LocalCommand::status(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(jsonOption);
    const auto parsed =
        parse(console(), parser, QStringLiteral("local status"), statusHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;

    Usage usage;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const EncryptedLocalStorage storage = co_await openStorage(connection.get());
        usage = co_await QtConcurrent::run(measure, storage);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }

    const qint64 quota = EncryptedLocalStorage::quotaBytes;
    if (parser.isSet(jsonOption)) {
        QJsonArray records;
        for (const auto& [name, size] : usage.records)
            records.append(
                QJsonObject{{QStringLiteral("name"), name}, {QStringLiteral("bytes"), size}});
        console().out(compactJson(QJsonObject{
            {QStringLiteral("account_directory"), usage.directory},
            {QStringLiteral("records"), records},
            {QStringLiteral("quota_used"), usage.used},
            {QStringLiteral("quota"), quota},
            {QStringLiteral("legacy_import_required"), usage.legacyImportRequired},
        }));
        co_return exitSuccess;
    }
    QStringList lines;
    lines << u"Account directory: " + usage.directory;
    if (usage.records.isEmpty())
        lines << QStringLiteral("Records: none");
    else
        lines << QStringLiteral("Records:");
    for (const auto& [name, size] : usage.records)
        lines << u"  " + name.leftJustified(52) + u' ' + grouped(size).rightJustified(12) +
                     u" bytes";
    lines << u"Quota used: " + grouped(usage.used) + u" of " + grouped(quota) + u" bytes";
    if (usage.legacyImportRequired)
        lines << u"Files of an older version wait in " + usage.legacyFolder +
                     u"; run \"kestrolan-cli local import-legacy " + usage.legacyFolder +
                     u"\" to import them.";
    console().out(lines.join(u'\n'));
    co_return exitSuccess;
}

QCoro::Task<int> LocalCommand::forget(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption yesOption(QStringLiteral("yes"), QStringLiteral("Do not ask."));
    parser.addOption(yesOption);
    const auto parsed =
        parse(console(), parser, QStringLiteral("local forget"), forgetHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const bool confirmed = parser.isSet(yesOption);
    if (!confirmed && ::isatty(STDIN_FILENO) != 1) {
        console().err(QStringLiteral("kestrolan-cli local forget: not on a terminal; add --yes "
                                     "to forget the local data without being asked."));
        co_return exitUsage;
    }

    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const EncryptedLocalStorage storage = co_await openStorage(connection.get());
        if (!confirmed) {
            console().err(QStringLiteral(
                "Forget this account's projects, agents, scheduled tasks and run history on "
                "this computer? Chats saved on the service stay. [y/N]"));
            const auto answer = co_await QtConcurrent::run(readLine);
            const QString reply = answer.value_or(QString()).trimmed().toLower();
            if (reply != u"y" && reply != u"yes") {
                console().err(QStringLiteral("Nothing was forgotten."));
                co_return exitFailure;
            }
        }
        ProjectStore store(storage);
        co_await store.forgetLocalData();
        co_await store.close();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    console().out(QStringLiteral("Forgot this account's local data."));
    co_return exitSuccess;
}

QCoro::Task<int> LocalCommand::importLegacy(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed = parse(console(), parser, QStringLiteral("local import-legacy"), importHelp,
                              arguments, 1, QStringLiteral("the folder to import from"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const QString folder = QFileInfo(std::get<QStringList>(parsed).first()).absoluteFilePath();

    LegacyImport::Summary summary;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const EncryptedLocalStorage storage = co_await openStorage(connection.get());
        ProjectStore projects(storage);
        AgentStore agents(storage);
        TaskStore tasks(storage);
        summary = co_await LegacyImport::run(folder, &projects, &agents, &tasks);
        co_await projects.close();
        co_await agents.close();
        co_await tasks.close();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    const auto& imported = summary.imported;
    qsizetype files = 0;
    for (const auto& list : imported.files)
        files += list.size();
    console().out(u"Imported " + plural(imported.projects.size(), u"project", u"projects") + u" (" +
                  plural(files, u"file", u"files") + u"), " +
                  plural(imported.agents.size(), u"agent", u"agents") + u", " +
                  plural(imported.tasks, u"scheduled task", u"scheduled tasks") + u" and " +
                  plural(imported.runs, u"task run", u"task runs") + u'.');
    if (!summary.notRemoved.isEmpty()) {
        console().err(u"These files could not be removed from " + folder +
                      u"; remove them yourself: " + summary.notRemoved.join(u", "));
    }
    co_return exitSuccess;
}

} // namespace kestrolan::cli
