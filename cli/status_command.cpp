#include "status_command.h"

#include "account/catalog_store.h"
#include "account/keychain_token_store.h"
#include "command_line.h"
#include "error.h"
#include "platform/settings_defaults.h"
#include "platform/system_keychain_access.h"
#include "secret_store_probe.h"
#include "service_connection.h"

#include <QJsonObject>
#include <optional>

namespace kestrolan::cli {
namespace {

const QString help = QStringLiteral(
    "Usage: kestrolan-cli status [--json]\n"
    "\n"
    "Shows the service address and whether the service answers, the signed-in account (its\n"
    "e-mail address, from the service), the selected model (the last one chosen, else the\n"
    "first available) and whether the keyring can keep the sign-in token. What cannot be found\n"
    "out is said so; the exit status is 0 unless the service address is invalid.\n"
    "\n"
    "Options:\n"
    "  --json      print one line of JSON: service_url, service_reachable, service_error,\n"
    "              signed_in, email, account_error, selected_model, keyring, keyring_error\n"
    "  -h, --help  show this help");

struct Status {
    QString serviceURL;
    std::optional<QString> serviceError; // empty when the service answered
    bool signedIn = false;
    std::optional<QString> email;
    std::optional<QString> accountError;
    std::optional<QString> selectedModel;
    SecretStoreProbe::Result keyring;
};

QJsonValue orNull(const std::optional<QString>& text) {
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

QJsonObject toJson(const Status& status) {
    const bool keyringWorks = status.keyring.state == SecretStoreProbe::State::available;
    return QJsonObject{
        {QStringLiteral("service_url"), status.serviceURL},
        {QStringLiteral("service_reachable"), !status.serviceError},
        {QStringLiteral("service_error"), orNull(status.serviceError)},
        {QStringLiteral("signed_in"), status.signedIn},
        {QStringLiteral("email"), orNull(status.email)},
        {QStringLiteral("account_error"), orNull(status.accountError)},
        {QStringLiteral("selected_model"), orNull(status.selectedModel)},
        {QStringLiteral("keyring"), SecretStoreProbe::name(status.keyring.state)},
        {QStringLiteral("keyring_error"),
         keyringWorks ? QJsonValue(QJsonValue::Null)
                      : QJsonValue(SecretStoreProbe::explanation(status.keyring))},
    };
}

QString toText(const Status& status) {
    QStringList lines;
    lines << u"Service: " + status.serviceURL +
                 (status.serviceError ? u" (not reachable: " + *status.serviceError + u')'
                                      : QString());
    if (status.email)
        lines << u"Account: " + *status.email;
    else if (status.signedIn)
        lines << u"Account: signed in (the account could not be loaded: " +
                     status.accountError.value_or(QString()) + u')';
    else if (status.accountError)
        lines << u"Account: unknown (" + *status.accountError + u')';
    else
        lines << QStringLiteral("Account: not signed in");
    lines << u"Model: " + status.selectedModel.value_or(QStringLiteral("none"));
    lines << u"Keyring: " + SecretStoreProbe::summary(status.keyring);
    return lines.join(u'\n');
}

// The account behind the stored token. A token the service refuses is removed by the client,
// which leaves the user signed out.
QCoro::Task<void> loadAccount(ServiceConnection* connection, Status* status) {
    try {
        const auto token = co_await connection->tokens()->read();
        if (!token)
            co_return;
        status->signedIn = true;
        const Account account = co_await connection->client().account();
        status->email = account.email;
    } catch (const Error& error) {
        status->accountError = error.description();
        if (connection->wasSignedOut())
            status->signedIn = false;
    }
}

} // namespace

QString StatusCommand::name() const {
    return QStringLiteral("status");
}

QString StatusCommand::summary() const {
    return QStringLiteral("Show the service, the account, the model and the keyring");
}

QCoro::Task<int> StatusCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(json);
    if (const auto stop = parseCommandLine(console(), parser, name(), help, arguments))
        co_return *stop;

    std::optional<ServiceConnection> connection;
    try {
        connection.emplace();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception());
    }

    Status status;
    status.serviceURL = connection->configuration().baseURL().toString();
    status.keyring = co_await SecretStoreProbe::run(std::make_shared<SystemKeychainAccess>());
    co_await loadAccount(&*connection, &status);

    // The catalog is public: it tells whether the service answers even when signed out.
    SettingsDefaults defaults;
    CatalogStore catalog(connection->client(), defaults);
    co_await catalog.refresh();
    status.serviceError = catalog.errorMessage();
    status.selectedModel = catalog.selectedModelID();
    // Without the catalog, the model last chosen is still the one a chat would use.
    if (!status.selectedModel)
        status.selectedModel = defaults.string(QString(CatalogStore::lastUsedModelKey));

    console().out(parser.isSet(json) ? compactJson(toJson(status)) : toText(status));
    co_return exitSuccess;
}

} // namespace kestrolan::cli
