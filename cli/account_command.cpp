#include "account_command.h"

#include "account/account.h"
#include "account/usd_formatting.h"
#include "command_line.h"
#include "service_connection.h"

namespace kestrolan::cli {
namespace {

const QString help = QStringLiteral(
    "Usage: kestrolan-cli account [--json]\n"
    "\n"
    "Shows the signed-in account: e-mail address, balance, the amount held for requests in\n"
    "progress, what is available to spend, and whether Zero Data Retention is on.\n"
    "\n"
    "Options:\n"
    "  --json      print the account as one line of JSON\n"
    "  -h, --help  show this help");

QString dollars(const QString& amount) {
    // The service's own text when it is not plain decimal dollars.
    return USDFormatting::display(amount, false).value_or(amount);
}

} // namespace

QString AccountCommand::name() const {
    return QStringLiteral("account");
}

QString AccountCommand::summary() const {
    return QStringLiteral("Show the account, its balance and Zero Data Retention");
}

QCoro::Task<int> AccountCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(json);
    if (const auto stop = parseCommandLine(console(), parser, name(), help, arguments))
        co_return *stop;

    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const Account account = co_await connection->client().account();
        if (parser.isSet(json)) {
            console().out(compactJson(account.toJson()));
            co_return exitSuccess;
        }
        console().out(u"Email: " + account.email);
        console().out(u"Balance: " + dollars(account.balanceUSD));
        console().out(u"Held: " + dollars(account.heldUSD));
        console().out(u"Available: " + dollars(account.availableUSD));
        console().out(u"Zero Data Retention: " + (account.zeroRetention.enabled
                                                      ? QStringLiteral("on")
                                                      : QStringLiteral("off")));
        co_return exitSuccess;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
}

} // namespace kestrolan::cli
